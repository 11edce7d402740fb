# 32-bit big-endian PowerPC with Debian's cross compiler. Libraries and headers come from the prefix
# TANDREL_SYSROOT; tools/cross_sysroot.sh builds the one that is the default here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR ppc)
set(CMAKE_C_COMPILER powerpc-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER powerpc-linux-gnu-g++)

set(TANDREL_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../../build/cache/powerpc-sysroot" CACHE PATH
  "Prefix (with usr/ below it) of the libraries for the device")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TANDREL_SYSROOT)

# Do not use the build machine's own libraries and headers.
cmake_path(ABSOLUTE_PATH TANDREL_SYSROOT NORMALIZE OUTPUT_VARIABLE sysroot)
set(CMAKE_FIND_ROOT_PATH ${sysroot} /usr/powerpc-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ENV{PKG_CONFIG_DIR} "")
set(ENV{PKG_CONFIG_LIBDIR} ${sysroot}/usr/lib/pkgconfig)
set(ENV{PKG_CONFIG_SYSROOT_DIR} ${sysroot})

# Runs tests in the build machine's emulator: see ./test --powerpc.
find_program(TANDREL_EMULATOR qemu-ppc)
if(TANDREL_EMULATOR)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${TANDREL_EMULATOR} -L /usr/powerpc-linux-gnu)
endif()
