# The library beside a model of it.
file(GLOB model_sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/model/*.cpp)
add_executable(model_test ${model_sources})
target_link_libraries(model_test PRIVATE test_support GTest::gtest_main)
gtest_discover_tests(model_test PROPERTIES COST 20)
