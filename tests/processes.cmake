# The programs as processes: killed, stopped, many, their directory removed, flooded, spoken to by another user.
if(PEGEIR_BUILD_PROGRAMS)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  foreach(test "lives Processes.SurviveWhatHappens" "stranger Processes.RefuseAnotherUser")
    separate_arguments(test UNIX_COMMAND "${test}")
    list(POP_FRONT test what)
    add_test(NAME ${test} COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/processes_test.py ${what}
                                  "${emulator} $<TARGET_FILE:pegeir-component>" "${emulator} $<TARGET_FILE:pegeir-watch>")
    set_tests_properties(${test} PROPERTIES LABELS programs COST 30 SKIP_RETURN_CODE 77)
  endforeach()
endif()
