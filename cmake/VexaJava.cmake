# What the Java binding in java/ is built against, and the option that builds it.
#
#   natively       a JDK: javac and its JNI headers (FindJNI's AWT and JVM
#                  libraries are not needed, so the headless JDK will do);
#   arm64 cross    Android's jni.h from Debian's android-libnativehelper-dev;
#   NDK            the NDK's own jni.h, found by the compiler.
#
# The classes carry nullability annotations from Debian's
# libjetbrains-annotations-java, needed to compile them only (their retention
# is CLASS: no run time reads them), and javadoc makes their reference pages.
#
# Sets VEXA_JNI_INCLUDE_DIRS (empty for the NDK), VEXA_ANDROID_JNI_INCLUDE_DIR
# (Android's jni.h on this machine, when installed), VEXA_ANNOTATIONS_JAR and
# the option VEXA_BUILD_JAVA, on by default when a jni.h for the target was
# found.
find_package(Java COMPONENTS Development QUIET)  # javac, jar and javadoc
find_file(VEXA_ANNOTATIONS_JAR org.jetbrains.annotations-java8.jar
    PATHS /usr/share/java NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_path(VEXA_ANDROID_JNI_INCLUDE_DIR jni.h
    PATHS /usr/include/android/nativehelper NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

set(vexa_jni_found OFF)
set(VEXA_JNI_INCLUDE_DIRS "")
if(ANDROID)
    set(vexa_jni_found ON)
elseif(CMAKE_CROSSCOMPILING)
    if(VEXA_ANDROID_JNI_INCLUDE_DIR)
        set(VEXA_JNI_INCLUDE_DIRS ${VEXA_ANDROID_JNI_INCLUDE_DIR})
        set(vexa_jni_found ON)
    endif()
elseif(Java_JAVAC_EXECUTABLE)
    # Without JAVA_HOME, FindJNI looks only in a list of well-known
    # directories; the JDK that javac belongs to is the one wanted.
    if(NOT JAVA_HOME AND NOT DEFINED ENV{JAVA_HOME})
        get_filename_component(vexa_javac "${Java_JAVAC_EXECUTABLE}" REALPATH)
        get_filename_component(JAVA_HOME "${vexa_javac}/../.." ABSOLUTE)
    endif()
    find_package(JNI QUIET)
    if(JAVA_INCLUDE_PATH AND JAVA_INCLUDE_PATH2)
        set(VEXA_JNI_INCLUDE_DIRS ${JAVA_INCLUDE_PATH} ${JAVA_INCLUDE_PATH2})
        set(vexa_jni_found ON)
    endif()
endif()

option(VEXA_BUILD_JAVA "Build the Java binding (libvexatool64_jni.so, vexatool.jar)"
       ${vexa_jni_found})
if(VEXA_BUILD_JAVA AND NOT vexa_jni_found)
    message(FATAL_ERROR "VEXA_BUILD_JAVA is on, but no jni.h was found for this target: "
                        "install a JDK (natively) or android-libnativehelper-dev (cross)")
endif()
