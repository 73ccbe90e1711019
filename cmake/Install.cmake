# What is installed, and the names under which CMake projects use it: pegeir::pegeir, pegeir::linux,
# pegeir::sim and so on.  They mean the same after find_package(pegeir) and after add_subdirectory.
#
# Components: runtime (shared libraries), development (headers, archives, what compilers and readers look
# for), tools (programs and their manual pages).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

add_library(pegeir_nd_data INTERFACE) # <pegeir/nd_data.h>: the keys and records of the reference component
target_include_directories(pegeir_nd_data INTERFACE $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/component/include>)

set(shared_libraries pegeir pegeir_linux pegeir_sim)
set(static_libraries pegeir_static pegeir_linux_static pegeir_sim_static)
set(header_libraries pegeir_platform_interface pegeir_nd_data)
set_target_properties(${shared_libraries} PROPERTIES VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR})

set_target_properties(pegeir_platform_interface PROPERTIES EXPORT_NAME platform)
foreach(target IN LISTS shared_libraries static_libraries)
  string(REGEX REPLACE "^pegeir_(linux|sim)" "\\1" name ${target})
  set_target_properties(${target} PROPERTIES EXPORT_NAME ${name})
endforeach()
set_target_properties(pegeir_nd_data PROPERTIES EXPORT_NAME nd_data)
foreach(target IN LISTS shared_libraries static_libraries header_libraries)
  get_target_property(name ${target} EXPORT_NAME)
  add_library(pegeir::${name} ALIAS ${target})
endforeach()

if(NOT PROJECT_IS_TOP_LEVEL)
  return()
endif()

install(
  TARGETS ${shared_libraries} ${static_libraries} ${header_libraries}
  EXPORT pegeir-targets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
  INCLUDES
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set(PEGEIR_HEADER_FOLDERS include platform/include platform/linux/include platform/sim/include component/include)
foreach(folder IN LISTS PEGEIR_HEADER_FOLDERS)
  install(
    DIRECTORY ${PROJECT_SOURCE_DIR}/${folder}/pegeir
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
    COMPONENT development
    FILES_MATCHING
    PATTERN *.h
    PATTERN *.hpp)
endforeach()

# find_package(pegeir)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/pegeir)
install(
  EXPORT pegeir-targets
  NAMESPACE pegeir::
  DESTINATION ${package_dir}
  COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/pegeir-config.cmake.in
                              ${PROJECT_BINARY_DIR}/cmake/pegeir-config.cmake INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/cmake/pegeir-config-version.cmake
                                 COMPATIBILITY SameMajorVersion)
install(
  FILES ${PROJECT_BINARY_DIR}/cmake/pegeir-config.cmake ${PROJECT_BINARY_DIR}/cmake/pegeir-config-version.cmake
  DESTINATION ${package_dir}
  COMPONENT development)

# pkg-config.  The files find their place by themselves, so that an installed tree can be moved.
set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH to_prefix /${pkgconfig_dir} /)
function(pegeir_pkgconfig name description private)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/pegeir.pc.in ${PROJECT_BINARY_DIR}/cmake/${name}.pc @ONLY)
  install(
    FILES ${PROJECT_BINARY_DIR}/cmake/${name}.pc
    DESTINATION ${pkgconfig_dir}
    COMPONENT development)
endfunction()
pegeir_pkgconfig(pegeir "Client of an IPv6 Neighbor Discovery component" "")
pegeir_pkgconfig(pegeir-linux "The Linux platform of pegeir" "-lstdc++")
pegeir_pkgconfig(pegeir-sim "The simulated platform of pegeir, for tests" "-lstdc++")

# Documents
install(
  FILES ${PROJECT_SOURCE_DIR}/docs/man/pegeir.3
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man3
  COMPONENT development)
install(
  DIRECTORY ${PROJECT_SOURCE_DIR}/examples
  DESTINATION ${CMAKE_INSTALL_DOCDIR}
  COMPONENT development)
include(Reference)
if(TARGET reference)
  install(
    DIRECTORY ${PROJECT_BINARY_DIR}/reference/html/
    DESTINATION ${CMAKE_INSTALL_DOCDIR}/reference
    COMPONENT development
    OPTIONAL) # there once the target has been built
endif()

if(PEGEIR_BUILD_PROGRAMS)
  foreach(program pegeir-component pegeir-watch pegeir-replay)
    if(NOT TARGET ${program})
      continue()
    endif()
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
    install(
      FILES ${PROJECT_SOURCE_DIR}/docs/man/${program}.1
      DESTINATION ${CMAKE_INSTALL_MANDIR}/man1
      COMPONENT tools)
  endforeach()
endif()
include(Packages)
