# 32-bit ARM with hardware floating point, Debian's armhf: its cross compiler, its libraries as
# scripts/armhf-sysroot fetches them, and qemu-arm to run what was built.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_CXX_FLAGS_INIT -Wno-psabi) # no note on what GCC 7 changed: everything here is of one compiler
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

cmake_path(SET PEGEIR_ARMHF_SYSROOT NORMALIZE ${CMAKE_CURRENT_LIST_DIR}/../../build/armhf-sysroot)
if(NOT EXISTS ${PEGEIR_ARMHF_SYSROOT}/packages)
  message(FATAL_ERROR "no armhf libraries in ${PEGEIR_ARMHF_SYSROOT}; run scripts/armhf-sysroot first")
endif()
set(CMAKE_SYSROOT ${PEGEIR_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${PEGEIR_ARMHF_SYSROOT})
