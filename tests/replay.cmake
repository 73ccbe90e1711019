# pegeir-replay on sessions that the programs record, and on what becomes of a recording in bad hands.
if(TARGET pegeir-replay)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  set(compile_test
      ${CMAKE_CXX_COMPILER} -std=c++20 -Wall -Wextra -Werror $<$<BOOL:${PEGEIR_SANITIZE}>:-fsanitize=address,undefined>
      -I${PROJECT_SOURCE_DIR}/include -I${PROJECT_SOURCE_DIR}/platform/include
      -I${PROJECT_SOURCE_DIR}/platform/sim/include)
  if(CMAKE_CROSSCOMPILING)
    list(APPEND compile_test --sysroot=${CMAKE_SYSROOT} -I${CMAKE_SYSROOT}/usr/src/googletest/googletest/include)
  endif()
  set(link_test $<TARGET_FILE:pegeir> $<TARGET_FILE:pegeir_sim> $<TARGET_FILE:GTest::gtest_main>
                $<TARGET_FILE:GTest::gtest> -lpthread -Wl,-rpath,$<TARGET_FILE_DIR:pegeir>)
  pegeir_runnable(replay pegeir-replay)
  pegeir_runnable(component pegeir-component)
  pegeir_runnable(watch pegeir-watch)
  add_test(NAME Replay.PlaysBackWhatWasRecorded
           COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/replay_test.py ${replay} ${component} ${watch}
                   "${compile_test}" "${link_test}" "${CMAKE_CROSSCOMPILING_EMULATOR}")
  set_tests_properties(Replay.PlaysBackWhatWasRecorded PROPERTIES LABELS programs COST 30)
endif()
