# What every Android build of the project gets, whether it comes through the
# NDK's toolchain file or through cmake/aarch64-linux-android.cmake (Debian's
# clang against an Android sysroot, as scripts/check-android-abi.sh builds):
#
#   - VEXA_ANDROID_MIN_API, the lowest API level the library supports; an
#     ANDROID_PLATFORM below it is refused;
#   - a call of a C library function that bionic has only from a later level
#     than the one built for is a compile error, not a library that fails to
#     load on an older device;
#   - the shared libraries are linked with --no-undefined, so a symbol that no
#     library of that level defines fails the link.
#
# 21: every C library function the library and the JNI library call is in
# bionic at API level 21, the first 64-bit Android release, so no lower
# level exists for arm64-v8a; nothing needs a later one.
set(VEXA_ANDROID_MIN_API 21)

# The NDK's toolchain file sets ANDROID_PLATFORM_LEVEL; CMake's own Android
# support (-DCMAKE_SYSTEM_NAME=Android) puts the level in CMAKE_SYSTEM_VERSION.
if(DEFINED ANDROID_PLATFORM_LEVEL)
    set(vexa_android_level ${ANDROID_PLATFORM_LEVEL})
elseif(CMAKE_SYSTEM_VERSION MATCHES "^[0-9]+$" AND NOT CMAKE_SYSTEM_VERSION EQUAL 1)
    set(vexa_android_level ${CMAKE_SYSTEM_VERSION})
else()
    message(FATAL_ERROR "Android build without an API level: give -DANDROID_PLATFORM=android-N")
endif()
if(vexa_android_level LESS VEXA_ANDROID_MIN_API)
    message(FATAL_ERROR "API level ${vexa_android_level} is below the library's minimum, "
                        "${VEXA_ANDROID_MIN_API}: give -DANDROID_PLATFORM=android-${VEXA_ANDROID_MIN_API}")
endif()

target_compile_options(vexa_warnings INTERFACE -Werror=unguarded-availability)
add_link_options("$<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,SHARED_LIBRARY>:LINKER:--no-undefined>")
