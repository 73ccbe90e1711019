# How the built files are hardened; sanitizers, coverage and builds without optimiser are not for use.  libc's
# fortified functions are out of reach for clang where they take any number of arguments.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT PEGEIR_SANITIZE AND NOT PEGEIR_COVERAGE AND NOT CMAKE_BUILD_TYPE STREQUAL Debug)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(hardened pegeir pegeir_linux pegeir_sim)
  if(PEGEIR_BUILD_PROGRAMS)
    list(APPEND hardened pegeir-component pegeir-watch)
  endif()
  list(TRANSFORM hardened REPLACE "(.+)" "$<TARGET_FILE:\\1>")
  add_test(NAME hardening COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/hardening_test.py
                                  ${CMAKE_READELF} ${hardened})
endif()
