include(GNUInstallDirs)
install(TARGETS tarn_sdk_mqtt_broker tarn-broker
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(FILES include/tarn_sdk_mqtt_broker.h DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
