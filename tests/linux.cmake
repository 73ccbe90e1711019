add_executable(linux_test ${CMAKE_CURRENT_LIST_DIR}/linux_test.cpp)
target_link_libraries(linux_test PRIVATE pegeir_compile pegeir_linux_static GTest::gtest_main)
gtest_discover_tests(linux_test)
