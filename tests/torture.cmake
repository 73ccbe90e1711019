# Engines that live whole lives of an instance under faults and over bad links.
target_sources(test_support PRIVATE ${CMAKE_CURRENT_LIST_DIR}/support/play.cpp)
foreach(test torture_test lossy_test)
  add_executable(${test} ${CMAKE_CURRENT_LIST_DIR}/${test}.cpp)
  target_link_libraries(${test} PRIVATE test_support GTest::gtest_main)
  gtest_discover_tests(${test})
endforeach()
