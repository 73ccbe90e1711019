# What the shared library exports and needs; sanitizers and coverage bring symbols of their own.
if(NOT PEGEIR_SANITIZE AND NOT PEGEIR_COVERAGE)
  find_package(Python3 REQUIRED COMPONENTS Interpreter)
  add_test(NAME exports COMMAND ${Python3_EXECUTABLE} ${CMAKE_CURRENT_LIST_DIR}/exports_test.py ${CMAKE_NM} ${CMAKE_READELF}
                                $<TARGET_FILE:pegeir> ${PROJECT_SOURCE_DIR})
endif()
