# Target coverage: runs the tests and prints the line and branch coverage of src/.
#
# Branches that only the compiler sees are left out: the library has no exceptions.
find_program(GCOVR gcovr REQUIRED)
add_custom_target(
  coverage
  COMMAND find ${CMAKE_BINARY_DIR} -name *.gcda -delete
  COMMAND ${CMAKE_CTEST_COMMAND} --output-on-failure -j2 -LE programs
  COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --object-directory ${CMAKE_BINARY_DIR} --filter
          ${PROJECT_SOURCE_DIR}/src/ --exclude-throw-branches --exclude-unreachable-branches --txt
          ${CMAKE_BINARY_DIR}/coverage-lines.txt
  COMMAND ${GCOVR} --root ${PROJECT_SOURCE_DIR} --object-directory ${CMAKE_BINARY_DIR} --filter
          ${PROJECT_SOURCE_DIR}/src/ --exclude-throw-branches --exclude-unreachable-branches --print-summary
          --branches --fail-under-line 98 --fail-under-branch 95
  WORKING_DIRECTORY ${CMAKE_BINARY_DIR}
  USES_TERMINAL VERBATIM)
