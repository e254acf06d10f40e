#!/usr/bin/env bash
# Runs the full load: one host and 256 clients x 1000 round trips of checked
# messages up to 511999 bytes, then prints the time, the message rate and the
# host's memory before and after (the test suite runs a short form of it).
#
#   scripts/load.sh              # build in build-load/, then the full load
#   scripts/load.sh --no-logs    # the same with the endpoint logs silenced
#
# VEXA_LOAD_CLIENTS and VEXA_LOAD_ROUNDS change the size. The endpoint logs go
# to a temporary directory that is removed afterwards.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

logs=1
if [ "${1:-}" = "--no-logs" ]; then
    logs=0
fi

ensure_packages cmake ninja-build g++ libgtest-dev

build="$root/build-load"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXA_WERROR=ON >/dev/null
cmake --build "$build" -j 2 --target api_load_test

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/logs"
if [ "$logs" -eq 0 ]; then
    : >"$work/logs/ipc_notprint.txt"
fi
export VEXA_LOG_DIR="$work/logs/"
export QZ_LOGPATH="$work/logs/"
export VEXA_LOAD_FULL=1
"$build/tests/api/api_load_test" --gtest_filter='Load.*'
echo "endpoint logs: $(du -sh "$work/logs" | cut -f1) in $(find "$work/logs" -type f | wc -l) files"
