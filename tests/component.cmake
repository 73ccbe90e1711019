if(PEGEIR_BUILD_PROGRAMS)
  add_executable(component_test component_test.cpp)
  pegeir_runnable(component pegeir-component)
  target_compile_definitions(component_test PRIVATE COMPONENT_PROGRAM="${component}" EMULATOR="${emulator}")
  target_link_libraries(component_test PRIVATE pegeir_compile pegeir_nd_component pegeir_linux_static
                                               GTest::gtest_main)
  add_dependencies(component_test pegeir-component)
  gtest_discover_tests(component_test)
endif()
