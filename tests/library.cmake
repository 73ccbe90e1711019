# Tests of the library, on the sim platform.
add_library(test_support STATIC ${CMAKE_CURRENT_LIST_DIR}/support/driver.cpp)
target_include_directories(test_support PUBLIC ${CMAKE_CURRENT_LIST_DIR} ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(test_support PUBLIC pegeir_compile pegeir_static pegeir_sim_static GTest::gtest)

file(GLOB library_tests CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/nd_lib*_test.cpp
     ${CMAKE_CURRENT_LIST_DIR}/tlv_test.cpp ${CMAKE_CURRENT_LIST_DIR}/session_test.cpp)
foreach(source IN LISTS library_tests)
  get_filename_component(test ${source} NAME_WE)
  add_executable(${test} ${source})
  target_link_libraries(${test} PRIVATE test_support GTest::gtest_main)
  gtest_discover_tests(${test})
endforeach()
