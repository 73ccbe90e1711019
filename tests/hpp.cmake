# The header for C++ consumers, and the example in its head, which is code: it has to compile with that
# header alone, without exceptions and RTTI.
add_executable(pegeir_hpp_test ${CMAKE_CURRENT_LIST_DIR}/pegeir_hpp_test.cpp)
target_link_libraries(pegeir_hpp_test PRIVATE test_support GTest::gtest_main)
gtest_discover_tests(pegeir_hpp_test)

set(cpp_header ${PROJECT_SOURCE_DIR}/include/pegeir/pegeir.hpp)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${cpp_header})
file(READ ${cpp_header} text)
string(REGEX REPLACE "\n#ifndef.*" "\n" text "\n${text}")
string(REGEX REPLACE "\n// ? ? ?[^ \n][^\n]*" "\n" text "${text}")
string(REGEX REPLACE "\n//" "\n" text "${text}")
file(CONFIGURE OUTPUT hpp_example.cpp CONTENT "#include <pegeir/pegeir.hpp>\n${text}" @ONLY)
add_library(hpp_example OBJECT ${CMAKE_CURRENT_BINARY_DIR}/hpp_example.cpp)
target_link_libraries(hpp_example PRIVATE pegeir_compile)
target_include_directories(hpp_example PRIVATE ${PROJECT_SOURCE_DIR}/include)
target_compile_options(hpp_example PRIVATE -fno-exceptions -fno-rtti)
