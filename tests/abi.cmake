# The binary interface of the library, as its debugging information has it, against the recorded one.
set(abi_record ${PROJECT_SOURCE_DIR}/abi/libpegeir.so.${PROJECT_VERSION_MAJOR}-${CMAKE_LIBRARY_ARCHITECTURE}.abi)
if(EXISTS ${abi_record} AND CMAKE_CXX_COMPILER_ID STREQUAL GNU AND NOT PEGEIR_SANITIZE AND NOT PEGEIR_COVERAGE)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  find_program(ABIDIFF abidiff REQUIRED)
  add_test(NAME abi COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/abi_test.py ${ABIDIFF} ${abi_record}
                            $<TARGET_FILE:pegeir>)
endif()
