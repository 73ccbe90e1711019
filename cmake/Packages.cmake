# Debian packages, by cpack -G DEB: libpegeir1 (shared libraries), libpegeir-dev, pegeir-tools.
#
# Configure with -DCMAKE_INSTALL_PREFIX=/usr, and for another architecture with its CMAKE_INSTALL_LIBDIR;
# scripts/packages does all of it.
set(soversion ${PROJECT_VERSION_MAJOR})
set(CPACK_PACKAGE_NAME pegeir)
set(CPACK_PACKAGE_CONTACT "pegeir developers <pegeir@pegeir.invalid>")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "client of an IPv6 Neighbor Discovery component")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_PACKAGE_DIRECTORY ${PROJECT_BINARY_DIR}/packages)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL runtime development tools)
set(CPACK_COMPONENTS_GROUPING IGNORE)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# The build directory's own libraries are in no package yet when the programs' needs are looked up.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(what "pegeir gets data from an IPv6 Neighbor Discovery component, which is another
process: it subscribes items, downloads what there is, and follows each change.
")
function(pegeir_package component name section text)
  string(TOUPPER ${component} component)
  set(prefix CPACK_DEBIAN_${component}_PACKAGE)
  set(${prefix}_NAME ${name} PARENT_SCOPE)
  set(${prefix}_SECTION ${section} PARENT_SCOPE)
  set(CPACK_COMPONENT_${component}_DESCRIPTION "${CPACK_PACKAGE_DESCRIPTION_SUMMARY} - ${text}" PARENT_SCOPE)
endfunction()
pegeir_package(runtime libpegeir${soversion} libs "shared libraries\n${what}This package has the library and its Linux and simulated platforms.")
pegeir_package(development libpegeir-dev libdevel "development files\n${what}This package has what is needed to build with it, its reference and examples.")
pegeir_package(tools pegeir-tools net "programs\n${what}This package has a component to talk to, and programs that watch it.")
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${CMAKE_CURRENT_LIST_DIR}/debian/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SUGGESTS libpcap0.8)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "libpegeir${soversion} (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libpegeir${soversion} (= ${PROJECT_VERSION})")
# The libraries of another architecture are in no package database here, so what needs them has to be said.
set(PEGEIR_DEPENDS_RUNTIME "" CACHE STRING "Packages that libpegeir${soversion} depends on, in place of looking them up")
set(PEGEIR_DEPENDS_TOOLS "" CACHE STRING "Packages that pegeir-tools depends on, in place of looking them up")
foreach(component RUNTIME TOOLS)
  if(PEGEIR_DEPENDS_${component})
    set(CPACK_DEBIAN_${component}_PACKAGE_DEPENDS "${PEGEIR_DEPENDS_${component}}")
  else()
    set(CPACK_DEBIAN_${component}_PACKAGE_SHLIBDEPS ON)
  endif()
endforeach()
set(CPACK_DEBIAN_TOOLS_PACKAGE_SUGGESTS libpcap0.8)

# What a Debian package has beside its files is made while it is packed.
set(CPACK_PRE_BUILD_SCRIPTS ${CMAKE_CURRENT_LIST_DIR}/debian/finish.cmake)
set(CPACK_PEGEIR_DEBIAN_DIR ${CMAKE_CURRENT_LIST_DIR}/debian)
include(CPack)
