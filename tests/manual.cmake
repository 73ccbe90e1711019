# The manual pages are held against the programs and the header.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(manual_test ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/manual_test.py)
set(manual ${PROJECT_SOURCE_DIR}/docs/man)

add_test(NAME Manual.HasEveryCall COMMAND ${manual_test} calls ${manual}/pegeir.3
                                          ${PROJECT_SOURCE_DIR}/include/pegeir/pegeir.h)
set_tests_properties(Manual.HasEveryCall PROPERTIES LABELS docs)
if(PEGEIR_BUILD_PROGRAMS)
  foreach(program pegeir-component pegeir-watch pegeir-replay)
    pegeir_runnable(runnable ${program})
    add_test(NAME Manual.HasEveryOption.${program} COMMAND ${manual_test} options ${manual}/${program}.1 ${runnable})
    set_tests_properties(Manual.HasEveryOption.${program} PROPERTIES LABELS "docs;programs")
  endforeach()
endif()
