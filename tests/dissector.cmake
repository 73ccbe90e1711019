# The dissector, under tshark: packets made by the test, changed ones, and a session of the programs.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
find_program(TSHARK tshark REQUIRED)
set(dissector_test ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/dissector_test.py)
set(dissector ${PROJECT_SOURCE_DIR}/tools/wireshark/pegeir.lua)

add_test(NAME Dissector.ShowsEveryPacket COMMAND ${dissector_test} bytes ${dissector})
add_test(NAME Dissector.SurvivesMutants COMMAND ${dissector_test} mutants ${dissector} 2000)
set_tests_properties(Dissector.ShowsEveryPacket Dissector.SurvivesMutants PROPERTIES LABELS dissector)
if(PEGEIR_BUILD_PROGRAMS AND PEGEIR_CAPTURE)
  pegeir_runnable(component pegeir-component)
  pegeir_runnable(watch pegeir-watch)
  add_test(NAME Dissector.ReadsWhatTheProgramsRecord
           COMMAND ${dissector_test} programs ${dissector} ${component} ${watch})
  set_tests_properties(Dissector.ReadsWhatTheProgramsRecord PROPERTIES LABELS "dissector;programs" COST 20)
endif()
