# How every target of the project is compiled, and the one function that makes its libraries.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 99)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
include(CheckPIESupported)
check_pie_supported() # without it CMake leaves it to the compiler whether programs are linked as such
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bin)
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/lib)
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

add_library(pegeir_compile INTERFACE)
target_compile_options(
  pegeir_compile
  INTERFACE -Wall
            -Wextra
            -Wpedantic
            -Wshadow
            -Wconversion
            -Wsign-conversion
            -Wformat=2
            -Wundef
            -Wcast-align
            $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
            $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>)
if(PROJECT_IS_TOP_LEVEL) # a warning of somebody's newer compiler must not end the build of their project
  target_compile_options(pegeir_compile INTERFACE -Werror)
endif()
if(PEGEIR_SANITIZE)
  target_compile_options(pegeir_compile INTERFACE -O1 -fsanitize=address,undefined -fno-sanitize-recover=all
                                                  -fno-omit-frame-pointer)
  target_link_options(pegeir_compile INTERFACE -fsanitize=address,undefined)
endif()

# pegeir_optimise_less(option source...): what the compiler is long at and a test seldom runs.
function(pegeir_optimise_less option)
  set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS ${option})
endfunction()

if(PEGEIR_TRAP_UNALIGNED)
  # The processor carries out most of them, slowly, and emulation all.  So the program looks itself.
  target_compile_options(pegeir_compile INTERFACE -fsanitize=alignment -fsanitize-undefined-trap-on-error)
  if(CMAKE_SYSTEM_PROCESSOR MATCHES "^arm")
    # The address of a Thumb function is odd, which the check of a reference to one takes for unaligned.
    target_compile_options(pegeir_compile INTERFACE -marm)
  endif()
endif()

# Hardening.  A sanitizer looks closer, and its runtime and fortified functions get into each other's way.
target_link_options(pegeir_compile INTERFACE LINKER:-z,relro,-z,now,-z,noexecstack,-z,text)
if(NOT PEGEIR_SANITIZE)
  target_compile_options(pegeir_compile INTERFACE -fstack-protector-strong)
  if(NOT CMAKE_BUILD_TYPE STREQUAL Debug) # it needs an optimiser
    target_compile_options(pegeir_compile INTERFACE -U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2)
  endif()
endif()

if(PEGEIR_COVERAGE)
  # Everything, because the linker keeps one copy of an inline function: it must be one that counts.
  target_compile_options(pegeir_compile INTERFACE --coverage)
  target_link_options(pegeir_compile INTERFACE --coverage)
endif()

# pegeir_add_library(name SOURCES ... [OBJECTS ...] [INCLUDE ...] [LINK ...] [OUTPUT_NAME ...]) makes
# name (shared) and name_static from the same objects; OBJECTS names object libraries whose objects
# become part of both.
function(pegeir_add_library name)
  cmake_parse_arguments(ARG "" "OUTPUT_NAME" "SOURCES;OBJECTS;INCLUDE;LINK" ${ARGN})
  if(NOT ARG_OUTPUT_NAME)
    set(ARG_OUTPUT_NAME ${name})
  endif()
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_link_libraries(${name}_objects PRIVATE pegeir_compile PUBLIC ${ARG_LINK})
  target_include_directories(${name}_objects PUBLIC ${ARG_INCLUDE})
  set(objects $<TARGET_OBJECTS:${name}_objects>)
  foreach(library IN LISTS ARG_OBJECTS)
    list(APPEND objects $<TARGET_OBJECTS:${library}>)
    target_include_directories(${name}_objects PRIVATE $<TARGET_PROPERTY:${library},INTERFACE_INCLUDE_DIRECTORIES>)
  endforeach()
  foreach(kind SHARED STATIC)
    set(target ${name})
    if(kind STREQUAL STATIC)
      set(target ${name}_static)
    endif()
    add_library(${target} ${kind} ${objects})
    # Who uses the installed library has neither these folders nor these compile options.
    target_link_libraries(${target} PRIVATE $<BUILD_INTERFACE:pegeir_compile> PUBLIC ${ARG_LINK})
    target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${ARG_INCLUDE}>")
    set_target_properties(${target} PROPERTIES OUTPUT_NAME ${ARG_OUTPUT_NAME})
  endforeach()
endfunction()
