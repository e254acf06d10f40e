# Cross build for 64-bit ARM Linux with Debian's g++-aarch64-linux-gnu.
#
#   cmake -S . -B build-arm64 -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-gnu.cmake
#
# Test binaries run under qemu's user-mode emulator with the arm64 sysroot, so
# a plain `ctest` in the build tree runs the whole suite as arm64 code. The
# device build uses the Android NDK's toolchain file instead (see README.md).
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VEXA_CROSS_TRIPLE aarch64-linux-gnu)
set(VEXA_CROSS_SYSROOT "/usr/${VEXA_CROSS_TRIPLE}" CACHE PATH "Root of the arm64 libraries")

set(CMAKE_C_COMPILER ${VEXA_CROSS_TRIPLE}-gcc)
set(CMAKE_CXX_COMPILER ${VEXA_CROSS_TRIPLE}-g++)

# Look for libraries and headers only for the target; programs on the host.
set(CMAKE_FIND_ROOT_PATH ${VEXA_CROSS_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# add_test() commands that name a target are run through this; -L points the
# emulator's dynamic loader at the arm64 libc and libstdc++.
find_program(VEXA_QEMU_AARCH64 qemu-aarch64)
if(NOT VEXA_QEMU_AARCH64)
    message(WARNING "qemu-aarch64 not found: the arm64 test binaries cannot run here")
    set(VEXA_QEMU_AARCH64 qemu-aarch64)
endif()
set(CMAKE_CROSSCOMPILING_EMULATOR "${VEXA_QEMU_AARCH64};-L;${VEXA_CROSS_SYSROOT}")
