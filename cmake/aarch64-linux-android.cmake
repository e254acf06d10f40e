# Cross build for Android on 64-bit ARM without the NDK's compilers: Debian's
# clang, lld and libc++ headers against an Android sysroot, either the NDK's
# (<ndk>/toolchains/llvm/prebuilt/linux-x86_64/sysroot) or the one that
# scripts/check-android-abi.sh assembles from bionic's headers and symbol lists.
#
#   cmake -S . -B build-android-abi/cmake -G Ninja \
#       -DCMAKE_TOOLCHAIN_FILE=cmake/aarch64-linux-android.cmake \
#       -DVEXA_ANDROID_SYSROOT=SYSROOT -DVEXA_ANDROID_STL_DIR=DIR \
#       -DANDROID_ABI=arm64-v8a -DANDROID_PLATFORM=android-21 -DANDROID_STL=c++_shared
#
# It takes the options of the NDK's own toolchain file and sets what that file
# sets for a project (ANDROID, ANDROID_ABI, ANDROID_PLATFORM_LEVEL), so the
# project's Android rules (cmake/VexaAndroid.cmake) see the same build either
# way. Only arm64-v8a and c++_shared: the C++ runtime is the libc++_shared.so
# in VEXA_ANDROID_STL_DIR, which must have been built from the libc++ headers
# used here (Debian's name their namespace std::__1, the NDK's std::__ndk1).
# Nothing built here runs on this machine: there is no bionic to run it with.

# As the NDK's toolchain file does: system version 1 keeps CMake's own NDK
# support out, while the platform is still Android (ANDROID is set).
set(CMAKE_SYSTEM_NAME Android)
set(CMAKE_SYSTEM_VERSION 1)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(VEXA_ANDROID_SYSROOT "" CACHE PATH "Android sysroot: usr/include and usr/lib/aarch64-linux-android/<level>")
set(VEXA_ANDROID_STL_DIR "${VEXA_ANDROID_SYSROOT}/usr/lib/aarch64-linux-android" CACHE PATH
    "Directory of the libc++_shared.so to link")
set(ANDROID_ABI arm64-v8a CACHE STRING "Android ABI (only arm64-v8a)")
set(ANDROID_PLATFORM android-21 CACHE STRING "Lowest Android API level to run on: android-N or N")
set(ANDROID_STL c++_shared CACHE STRING "C++ runtime (only c++_shared)")
# try_compile projects read this file again and need the same values.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES
     VEXA_ANDROID_SYSROOT VEXA_ANDROID_STL_DIR ANDROID_ABI ANDROID_PLATFORM ANDROID_STL)

if(NOT ANDROID_ABI STREQUAL "arm64-v8a")
    message(FATAL_ERROR "ANDROID_ABI=${ANDROID_ABI}: this toolchain file builds arm64-v8a only")
endif()
if(NOT ANDROID_STL STREQUAL "c++_shared")
    message(FATAL_ERROR "ANDROID_STL=${ANDROID_STL}: without the NDK only c++_shared can be linked")
endif()
string(REGEX REPLACE "^android-" "" ANDROID_PLATFORM_LEVEL "${ANDROID_PLATFORM}")
if(NOT ANDROID_PLATFORM_LEVEL MATCHES "^[0-9]+$")
    message(FATAL_ERROR "ANDROID_PLATFORM=${ANDROID_PLATFORM}: give android-N or N")
endif()
if(NOT EXISTS "${VEXA_ANDROID_SYSROOT}/usr/include/android/api-level.h")
    message(FATAL_ERROR "VEXA_ANDROID_SYSROOT='${VEXA_ANDROID_SYSROOT}' is not an Android sysroot "
                        "(no usr/include/android/api-level.h)")
endif()

set(CMAKE_SYSROOT "${VEXA_ANDROID_SYSROOT}")
set(vexa_android_target aarch64-linux-android${ANDROID_PLATFORM_LEVEL})
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET ${vexa_android_target})
set(CMAKE_CXX_COMPILER_TARGET ${vexa_android_target})
set(CMAKE_ASM_COMPILER_TARGET ${vexa_android_target})
# Linking a program needs more start files than a library; the checks only
# compile.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# Debian's libc++ headers, the ones that belong to this clang, not whatever
# the sysroot holds.
find_program(VEXA_ANDROID_CLANGXX clang++)
get_filename_component(vexa_clang_real "${VEXA_ANDROID_CLANGXX}" REALPATH)
get_filename_component(VEXA_ANDROID_LIBCXX_INCLUDE_DIR "${vexa_clang_real}/../../include/c++/v1" ABSOLUTE)
if(NOT EXISTS "${VEXA_ANDROID_LIBCXX_INCLUDE_DIR}/__config")
    message(FATAL_ERROR "libc++ headers not found in ${VEXA_ANDROID_LIBCXX_INCLUDE_DIR}: install libc++-dev")
endif()
set(CMAKE_CXX_FLAGS_INIT "-nostdinc++ -isystem ${VEXA_ANDROID_LIBCXX_INCLUDE_DIR}")

# The libraries a binary links are named here, as the NDK links them: the C++
# runtime, then bionic's libm, libdl and libc of the chosen level (found by
# the driver in usr/lib/aarch64-linux-android/<level> of the sysroot).
# (The compile flags reach the link too, where -nostdinc++ would be reported.)
foreach(kind EXE SHARED MODULE)
    set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -nodefaultlibs -Wno-unused-command-line-argument")
endforeach()
set(CMAKE_C_STANDARD_LIBRARIES_INIT "-lm -ldl -lc")
set(CMAKE_CXX_STANDARD_LIBRARIES_INIT "-L${VEXA_ANDROID_STL_DIR} -lc++_shared -lm -ldl -lc")

set(CMAKE_FIND_ROOT_PATH "${VEXA_ANDROID_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
