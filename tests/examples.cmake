# examples/own-platform, in the tree; scripts/packages runs it on the installed library.
set(own_platform_file ${PROJECT_SOURCE_DIR}/examples/own-platform/own_platform.c)
add_executable(own_platform ${own_platform_file})
set_target_properties(own_platform PROPERTIES C_EXTENSIONS OFF)
target_link_libraries(own_platform PRIVATE pegeir_compile pegeir::pegeir)
add_test(NAME Examples.OwnPlatformServesAConsumer COMMAND own_platform)
# It leaves out the optional operation; the consumer of README.md runs where there is everything.
set_tests_properties(Examples.OwnPlatformServesAConsumer PROPERTIES TIMEOUT 30 ENVIRONMENT LD_BIND_NOW=1)

# Its tree, boxes and text functions against the models of the platform's own.  The program's definitions take
# the place of those in the sim's library, which has the rest that the models' tests use.
add_executable(own_platform_test ${CMAKE_CURRENT_LIST_DIR}/platform_common_test.cpp ${own_platform_file})
target_compile_definitions(
  own_platform_test PRIVATE $<$<COMPILE_LANGUAGE:C>:main=OwnPlatformMain>
                            $<$<COMPILE_LANGUAGE:C>:g_aucZepMemPt=g_ownMemPt>) # a sanitizer refuses to see it twice
target_link_libraries(own_platform_test PRIVATE pegeir_compile pegeir pegeir_sim GTest::gtest_main)
gtest_discover_tests(own_platform_test TEST_PREFIX OwnPlatform.)
