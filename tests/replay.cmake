# pegeir-replay on sessions that the programs record, and on what becomes of a recording in bad hands.
if(TARGET pegeir-replay)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(compile_test
      ${CMAKE_CXX_COMPILER} -std=c++20 -Wall -Wextra -Werror $<$<BOOL:${PEGEIR_SANITIZE}>:-fsanitize=address,undefined>
      -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/platform/include
      -I${PROJECT_SOURCE_DIR}/platform/sim/include)
  set(link_test $<TARGET_FILE:pegeir> $<TARGET_FILE:pegeir_sim> $<TARGET_FILE:GTest::gtest_main>
                $<TARGET_FILE:GTest::gtest> -lpthread -Wl,-rpath,$<TARGET_FILE_DIR:pegeir>)
  add_test(NAME Replay.PlaysBackWhatWasRecorded
           COMMAND Python3::Interpreter ${CMAKE_CURRENT_LIST_DIR}/replay_test.py $<TARGET_FILE:pegeir-replay>
                   $<TARGET_FILE:pegeir-component> $<TARGET_FILE:pegeir-watch> "${compile_test}" "${link_test}")
  set_tests_properties(Replay.PlaysBackWhatWasRecorded PROPERTIES LABELS programs)
endif()
