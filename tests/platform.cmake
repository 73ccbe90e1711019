# Tests of what the platforms share and of the sim platform.
foreach(test platform_common_test sim_test)
  add_executable(${test} ${CMAKE_CURRENT_LIST_DIR}/${test}.cpp)
  target_link_libraries(${test} PRIVATE pegeir_compile pegeir_sim GTest::gtest_main)
  gtest_discover_tests(${test})
endforeach()

# The example in the head of sim.hpp is code: sim_test compiles and runs it.
set(sim_header ${PROJECT_SOURCE_DIR}/platform/sim/include/pegeir/sim.hpp)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${sim_header})
file(READ ${sim_header} text)
string(REGEX REPLACE "\n#ifndef.*" "\n" text "\n${text}")
string(REGEX REPLACE "\n// ? ? ?[^ \n][^\n]*" "\n" text "${text}")
string(REGEX REPLACE "\n//" "\n" text "${text}")
file(WRITE ${CMAKE_CURRENT_BINARY_DIR}/sim_example.cpp.new "${text}")
file(COPY_FILE ${CMAKE_CURRENT_BINARY_DIR}/sim_example.cpp.new ${CMAKE_CURRENT_BINARY_DIR}/sim_example.cpp
     ONLY_IF_DIFFERENT)
target_sources(sim_test PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/sim_example.cpp)
target_link_libraries(sim_test PRIVATE pegeir)
