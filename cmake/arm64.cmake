# 64-bit Arm on another Debian machine: the cross compiler, the packages that
# scripts/arm64-sysroot unpacked, and qemu to run the tests.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)

get_filename_component(jactor_sysroot "${CMAKE_CURRENT_LIST_DIR}/../build/arm64-sysroot" ABSOLUTE)
if(NOT EXISTS "${jactor_sysroot}/packages")
  message(FATAL_ERROR "run scripts/arm64-sysroot first: it fetches the arm64 libraries")
endif()

# The compiler has its own C and C++ libraries, so the packages only provide CZMQ and
# GoogleTest, and are not a --sysroot.
set(CMAKE_FIND_ROOT_PATH "${jactor_sysroot}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Where the linker finds the libraries that CZMQ needs.
set(jactor_rpath_link "-Wl,-rpath-link,${jactor_sysroot}/usr/lib/aarch64-linux-gnu:${jactor_sysroot}/lib/aarch64-linux-gnu")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${jactor_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${jactor_rpath_link}")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64 -L "${jactor_sysroot}")
