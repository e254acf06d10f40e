#!/usr/bin/env bash
# Runs the end-to-end tests under valgrind's memcheck: the exported interface
# (with a killed server) and the short load, each in one process with its
# server, its clients and their threads. Programs these tests start run without
# valgrind.
#
#   scripts/valgrind.sh          # build in build-valgrind/, then the two tests
#
# Installs valgrind and the build tools when missing. Fails on any memcheck
# error and on definitely or indirectly lost memory; memory still reachable at
# exit (such as the process-wide common logger) is reported, not counted.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

ensure_packages cmake ninja-build g++ libgtest-dev valgrind

build="$root/build-valgrind"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXA_WERROR=ON \
    -DCMAKE_C_FLAGS="" -DCMAKE_CXX_FLAGS="" >/dev/null
cmake --build "$build" -j 2 --target api_test api_load_test

# Room for the test that opens 1100 descriptors: valgrind keeps a few of its
# own above the limit it starts with.
ulimit -n 4096 2>/dev/null || true

status=0
for name in api_test api_load_test; do
    binary="$build/tests/api/$name"
    # The logs go where CTest puts them for this test (some tests look there).
    logs="$build/tests/api/logs/$name/"
    mkdir -p "$logs"
    report="$build/valgrind-$name.txt"
    echo "== $name under memcheck (report: $report)"
    rc=0
    VEXA_LOG_DIR="$logs" QZ_LOGPATH="$logs" \
        valgrind --tool=memcheck --leak-check=full --errors-for-leak-kinds=definite,indirect \
        --error-exitcode=1 --trace-children=no --child-silent-after-fork=yes \
        --log-file="$report" "$binary" || rc=$?
    grep -E "ERROR SUMMARY|definitely lost|indirectly lost|possibly lost|still reachable|no leaks" \
        "$report" | sed 's/^==[0-9]*== /    /'
    if [ "$rc" -ne 0 ]; then
        echo "   FAILED with status $rc"
        status=1
    fi
done
exit "$status"
