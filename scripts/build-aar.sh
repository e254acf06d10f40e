#!/usr/bin/env bash
# Packs the Android library archive for host apps, vexatool-<version>.aar, and
# beside it vexatool-<version>-javadoc.jar and vexatool-<version>-sources.jar:
#
#   scripts/build-aar.sh [OUT_DIR]      # default build-aar/
#
# With ANDROID_NDK (or ANDROID_NDK_HOME) set, the libraries are built with the
# NDK's toolchain for arm64-v8a and API level 21: the archive an app uses.
# Without it they are cross-built with Debian's g++-aarch64-linux-gnu: the same
# code, layout and 16 KB alignment, but linked against glibc, so that archive
# serves to check the packaging, not to run on a device.
#
# Inside: META-INF/LICENSE (in each jar too), AndroidManifest.xml, classes.jar
# (Java 8 bytecode, whose nullability annotations need no jar at run time),
# proguard.txt, jni/arm64-v8a/ with libvexatool64.so and libvexatool64_jni.so,
# and a prefab package "vexatool" whose module vexatool64 offers the C
# interface to the app's own native code. scripts/check-elf.sh checks the
# libraries and scripts/check-aar.py the finished archive and the two jars.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

ensure_packages cmake ninja-build file zip python3 openjdk-17-jdk-headless \
    android-libnativehelper-dev libjetbrains-annotations-java
out=${1:-$root/build-aar}
mkdir -p "$out"
out=$(cd "$out" && pwd)
build="$out/cmake-arm64"

ndk=${ANDROID_NDK:-${ANDROID_NDK_HOME:-}}
if [ -n "$ndk" ]; then
    toolchain=(-DCMAKE_TOOLCHAIN_FILE="$ndk/build/cmake/android.toolchain.cmake"
        -DANDROID_ABI=arm64-v8a -DANDROID_PLATFORM=android-21 -DANDROID_STL=c++_static)
    ndk_major=$(sed -n 's/^Pkg.Revision *= *\([0-9]*\).*/\1/p' "$ndk/source.properties")
else
    ensure_packages g++-aarch64-linux-gnu
    toolchain=(-DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake")
    ndk_major=0
    echo "note: ANDROID_NDK is not set; the libraries link glibc, for checking the packaging only"
fi

cmake -S "$root" -B "$build" -G Ninja "${toolchain[@]}" \
    -DCMAKE_BUILD_TYPE=Release -DVEXA_WERROR=ON -DVEXA_BUILD_TESTS=OFF -DVEXA_BUILD_JAVA=ON
cmake --build "$build" -j 2 --target vexatool64 vexatool64_jni vexatool_java vexatool_java_docs
"$root/scripts/check-elf.sh" "$build"
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")

stage="$out/aar"
rm -rf "$stage"
module="$stage/prefab/modules/vexatool64"
libs="$module/libs/android.arm64-v8a"
mkdir -p "$stage/META-INF" "$stage/jni/arm64-v8a" "$module/include" "$libs"
cp "$root/LICENSE" "$stage/META-INF/"
cp "$root/java/aar/AndroidManifest.xml" "$root/java/aar/proguard.txt" "$stage/"
cp "$build/java/vexatool.jar" "$stage/classes.jar"
cp "$build/src/api/libvexatool64.so" "$build/java/libvexatool64_jni.so" "$stage/jni/arm64-v8a/"
cp "$build/include/vexatool.h" "$module/include/"
cp "$build/src/api/libvexatool64.so" "$libs/"
cat >"$stage/prefab/prefab.json" <<JSON
{
    "schema_version": 2,
    "name": "vexatool",
    "version": "$version",
    "dependencies": []
}
JSON
cat >"$module/module.json" <<JSON
{
    "export_libraries": [],
    "library_name": "libvexatool64"
}
JSON
# "stl": "none": the C++ runtime is linked in statically and hidden behind
# the ten C functions, so the app may use any STL of its own.
cat >"$libs/abi.json" <<JSON
{
    "abi": "arm64-v8a",
    "api": 21,
    "ndk": $ndk_major,
    "stl": "none",
    "static": false
}
JSON

aar="$out/vexatool-$version.aar"
rm -f "$aar"
(cd "$stage" && zip -q -r -X "$aar" .)
for kind in javadoc sources; do
    cp "$build/java/vexatool-$kind.jar" "$out/vexatool-$version-$kind.jar"
done
python3 "$root/scripts/check-aar.py" "$aar" "$build/include/vexatool.h"
