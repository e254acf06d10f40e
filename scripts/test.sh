#!/usr/bin/env bash
# Installs what is missing, builds the library and its tests, and runs them all.
#
#   scripts/test.sh                      # native build in build/
#   scripts/test.sh --sanitize address   # AddressSanitizer + UBSan in build-asan/
#   scripts/test.sh --sanitize thread    # ThreadSanitizer in build-tsan/
#
# Warnings are errors; any sanitizer report fails the run.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

sanitize=""
if [ "${1:-}" = "--sanitize" ]; then
    sanitize=${2:?"--sanitize needs address or thread"}
fi

ensure_packages cmake ninja-build g++ libgtest-dev file scdoc \
    python3 python3-pytest python3-venv python3-setuptools python3-wheel tshark
# The JDK, JUnit and the Android headers and liblog serve the Java binding and its tests.
ensure_packages openjdk-17-jdk-headless junit4 android-libnativehelper-dev android-liblog-dev libjetbrains-annotations-java kotlin

flags=""
case "$sanitize" in
    "") build="$root/build" ;;
    address)
        build="$root/build-asan"
        flags="-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer"
        export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1:strict_string_checks=1"
        export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"
        ;;
    thread)
        build="$root/build-tsan"
        flags="-fsanitize=thread"
        export TSAN_OPTIONS="halt_on_error=1:second_deadlock_stack=1"
        ;;
    *) echo "unknown sanitizer: $sanitize" >&2; exit 2 ;;
esac

cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEXA_WERROR=ON \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$flags"
cmake --build "$build"
cd "$build"
ctest -j "$(nproc)" --output-on-failure
