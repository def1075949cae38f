# What `cmake --install` puts where:
#   bin/tarn-broker
#   lib/libtarn_sdk_mqtt_broker.so*        and lib/pkgconfig, lib/cmake/tarn_sdk_mqtt_broker beside it
#   include/tarn_sdk_mqtt_broker.h         all that most hosts need, and .hpp for those in C++
#   include/tarn_sdk_mqtt_broker/<module>/ the modules behind it; they include each other by relative paths, so the
#                                          folders stay as they are under src/
#   lib/systemd/system/tarn-broker.service found by systemd below /usr and /usr/local
# Nothing installed names the prefix, so the tree may be moved.
include(CMakePackageConfigHelpers)

install(TARGETS tarn_sdk_mqtt_broker tarn-broker EXPORT tarn_sdk_mqtt_brokerTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES broker/tarn-broker.service DESTINATION lib/systemd/system)
install(FILES docs/tarn-broker.md docs/log-lines.md docs/deviations.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES include/tarn_sdk_mqtt_broker.h include/tarn_sdk_mqtt_broker.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# The headers that are plain C. A header that is not listed here is the library's own.
set(TARN_MODULE_HEADERS
  api/broker.h
  base/export.h base/limits.h base/mutex_type.h
  client/client.h client/client_types.h
  codec/mqtt_codec.h codec/mqtt_codec_types.h
  handler/packet_handler.h handler/shared_sub.h
  log/agent_log.h
  net/netip.h net/netip_types.h
  persist/persist.h persist/persist_types.h
  qos/qos_reliable.h
  stats/mqtt_stats.h
  sub/retain.h sub/sub.h sub/sub_types.h
  tls/tls_psk.h)
foreach(header ${TARN_MODULE_HEADERS})
  get_filename_component(module ${header} DIRECTORY)
  install(FILES src/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/tarn_sdk_mqtt_broker/${module})
endforeach()

set(TARN_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/tarn_sdk_mqtt_broker)
install(EXPORT tarn_sdk_mqtt_brokerTargets NAMESPACE tarn_sdk_mqtt_broker:: DESTINATION ${TARN_PACKAGE_DIR})
configure_package_config_file(cmake/tarn_sdk_mqtt_brokerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_brokerConfig.cmake INSTALL_DESTINATION ${TARN_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_brokerConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_brokerConfig.cmake
  ${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_brokerConfigVersion.cmake
  DESTINATION ${TARN_PACKAGE_DIR})

# From lib/pkgconfig back to the prefix, however deep the library directory is.
file(RELATIVE_PATH TARN_PREFIX_FROM_PKGCONFIG
  ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/tarn_sdk_mqtt_broker.pc.in ${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_broker.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/tarn_sdk_mqtt_broker.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
