# tarn_unit_test(<module>): one executable of all tests/unit/<module>/*_test.cpp, linked with the library's objects, so
# that tests reach what the shared library hides. Every test runs in a process, a directory and, where the kernel
# allows it, a network namespace of its own (tests/support/test_main.cpp).
#
# The linker sends the library's calls to these functions through tests/support/faults.h, where a test can make them
# fail or move time. What else is given are properties of the tests.
set(TARN_WRAPPED malloc calloc realloc pthread_create socket bind listen accept4 epoll_create1 epoll_ctl epoll_wait
  clock_gettime gettimeofday time fopen fseek fwrite fputs fflush fsync fclose rename unlink)
list(TRANSFORM TARN_WRAPPED PREPEND "-Wl,--wrap=" OUTPUT_VARIABLE TARN_WRAP_FLAGS)

function(tarn_unit_test module)
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${module}/*_test.cpp)
  if(NOT sources)
    return()
  endif()
  add_executable(unit_${module} ${sources} $<TARGET_OBJECTS:tarn_objects>)
  target_link_libraries(unit_${module} PRIVATE tarn_test_support)
  # What takes longest to compile in a test is the framework's headers.
  set_target_properties(unit_${module} PROPERTIES POSITION_INDEPENDENT_CODE OFF) # as the precompiled header
  target_precompile_headers(unit_${module} REUSE_FROM tarn_test_support)
  gtest_discover_tests(unit_${module} TEST_PREFIX unit.${module}. DISCOVERY_MODE PRE_TEST
    PROPERTIES TIMEOUT 120 ${ARGN})
endfunction()
