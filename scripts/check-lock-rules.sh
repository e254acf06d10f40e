#!/usr/bin/env bash
# Builds the library with clang's thread-safety analysis as errors: every
# member marked GUARDED_BY is touched only with its lock held, every function
# marked REQUIRES is called only by holders (src/comm/thread_annotations.h).
#
#   scripts/check-lock-rules.sh        # builds in build-lock-rules/
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages cmake ninja-build clang

build="$root/build-lock-rules"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Debug \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_CXX_FLAGS="-Wthread-safety -Wthread-safety-beta" \
    -DVEXA_WERROR=ON -DVEXA_BUILD_TESTS=OFF -DVEXA_BUILD_JAVA=OFF >/dev/null
cmake --build "$build" --target vexatool64
echo "lock rules checked: clang -Wthread-safety found nothing in the library"
