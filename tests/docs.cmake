# The documents are held against the code: what they name, the state diagram, the consumer of README.md.
find_package(Python3 REQUIRED COMPONENTS Interpreter)
set(docs_test ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/docs_test.py)

add_test(NAME Docs.NameWhatIsThere COMMAND ${docs_test} names ${PROJECT_SOURCE_DIR})
set_tests_properties(Docs.NameWhatIsThere PROPERTIES LABELS docs)

if(PEGEIR_BUILD_PROGRAMS)
  add_test(NAME Docs.DiagramIsCurrent COMMAND fsm-diagram --check ${PROJECT_SOURCE_DIR}/docs/protocol.md)

  set(readme_consumer ${CMAKE_CURRENT_BINARY_DIR}/readme_consumer.c)
  add_custom_command(
    OUTPUT ${readme_consumer}
    COMMAND ${docs_test} consumer ${PROJECT_SOURCE_DIR}/README.md ${readme_consumer}
    DEPENDS ${PROJECT_SOURCE_DIR}/README.md ${CMAKE_CURRENT_LIST_DIR}/docs_test.py
    VERBATIM)
  add_executable(readme_consumer ${readme_consumer})
  set_target_properties(readme_consumer PROPERTIES C_EXTENSIONS OFF C_STANDARD_REQUIRED ON)
  target_include_directories(readme_consumer PRIVATE ${PROJECT_SOURCE_DIR}/component/include)
  target_link_libraries(readme_consumer PRIVATE pegeir_compile pegeir pegeir_linux)
  target_compile_options(readme_consumer PRIVATE -Wno-unused-parameter) # callbacks need not use all
  pegeir_runnable(component pegeir-component)
  pegeir_runnable(consumer readme_consumer)
  add_test(NAME Docs.ReadmeConsumerBecomesReady COMMAND ${docs_test} run ${component} ${consumer})
  set_tests_properties(Docs.DiagramIsCurrent Docs.ReadmeConsumerBecomesReady PROPERTIES LABELS "docs;programs")
  set_tests_properties(Docs.ReadmeConsumerBecomesReady PROPERTIES ENVIRONMENT LD_BIND_NOW=1)
endif()
