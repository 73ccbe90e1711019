# Target reference: the reference of the interfaces, as HTML in reference/html of the build directory.
# A warning is an error, and so is a declaration without a text.  Without Doxygen there is no such target.
find_package(Doxygen QUIET)
find_package(Python3 QUIET COMPONENTS Interpreter)
if(NOT TARGET Doxygen::doxygen OR NOT Python3_FOUND)
  return()
endif()
set(reference_folders)
set(reference_headers)
foreach(folder IN LISTS PEGEIR_HEADER_FOLDERS)
  list(APPEND reference_folders ${PROJECT_SOURCE_DIR}/${folder})
  file(GLOB headers CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${folder}/pegeir/*.h
       ${PROJECT_SOURCE_DIR}/${folder}/pegeir/*.hpp)
  list(APPEND reference_headers ${headers})
endforeach()
set(reference_stamp ${PROJECT_BINARY_DIR}/reference/done)
set(reference_filter_file ${PROJECT_SOURCE_DIR}/cmake/reference_filter.py)
set(reference_filter "${Python3_EXECUTABLE} ${reference_filter_file}")
set(reference_check_file ${PROJECT_SOURCE_DIR}/cmake/reference_check.py)
set(reference_depends ${reference_headers} ${reference_filter_file} ${reference_check_file}
                      ${PROJECT_SOURCE_DIR}/docs/reference.md ${PROJECT_BINARY_DIR}/Doxyfile)
string(REPLACE ";" " " reference_folder_list "${reference_folders}")
string(REPLACE ";" " " reference_header_list "${reference_headers}")
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
add_custom_command(
  OUTPUT ${reference_stamp}
  COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
  COMMAND ${Python3_EXECUTABLE} ${reference_check_file} ${PROJECT_BINARY_DIR}/reference/xml
          ${reference_headers}
  COMMAND ${CMAKE_COMMAND} -E touch ${reference_stamp}
  DEPENDS ${reference_depends}
  COMMENT "Making the reference"
  VERBATIM)
add_custom_target(reference DEPENDS ${reference_stamp})
