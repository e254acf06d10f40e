#!/usr/bin/env bash
# Builds the libFuzzer targets of fuzz/ with clang in build-fuzz/ and runs each
# one for a while on a copy of its seed corpus.
#
#   scripts/fuzz.sh          # 20 seconds per target
#   scripts/fuzz.sh 300      # 5 minutes per target
#
# The library is compiled with AddressSanitizer, UBSan and libFuzzer's coverage.
# The runs work in a temporary directory (the checked-in corpus is never
# written) which also holds the targets' logs; an input that crashes a target
# or breaks one of its checks is kept in build-fuzz/findings/<target>/ and
# fails the run.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

seconds=${1:-20}
case "$seconds" in
    '' | *[!0-9]*) echo "usage: $0 [seconds-per-target]" >&2; exit 2 ;;
esac

ensure_packages cmake ninja-build clang libclang-rt-14-dev

build="$root/build-fuzz"
flags="-fsanitize=address,undefined -fsanitize=fuzzer-no-link -fno-sanitize-recover=all"
flags="$flags -fno-omit-frame-pointer"
cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEXA_WERROR=ON -DVEXA_BUILD_TESTS=OFF -DVEXA_BUILD_FUZZERS=ON \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS="$flags" -DCMAKE_SHARED_LINKER_FLAGS="$flags"
cmake --build "$build" --target vexa_fuzzers -j 2

work=$(mktemp -d "${TMPDIR:-/tmp}/vexa-fuzz-run.XXXXXX")
trap 'rm -rf "$work"' EXIT
# The targets make their private log directories below TMPDIR.
export TMPDIR="$work"
export ASAN_OPTIONS="abort_on_error=1:detect_leaks=1"
export UBSAN_OPTIONS="print_stacktrace=1:halt_on_error=1"

failed=()
# run <target> <max input length>
run() {
    local name=$1 max_len=$2
    local corpus="$work/corpus/$name"
    local findings="$build/findings/$name"
    mkdir -p "$corpus" "$findings"
    cp "$root/fuzz/corpus/$name/"* "$corpus/"
    echo "== $name: ${seconds}s, max_len $max_len"
    if ! "$build/fuzz/$name" -max_total_time="$seconds" -max_len="$max_len" -timeout=10 \
        -print_final_stats=1 -artifact_prefix="$findings/" "$corpus" 2>"$work/$name.log"; then
        tail -n 60 "$work/$name.log" >&2
        failed+=("$name")
    fi
    grep -E '^(Done|stat::number_of_executed_units|stat::peak_rss_mb)' "$work/$name.log" || true
    grep -E '^#[0-9]+' "$work/$name.log" | tail -n 1 || true
}

run fuzz_message_reader 4096
run fuzz_address 256
run fuzz_launcher 1024
run fuzz_strings 1024

if [ ${#failed[@]} -ne 0 ]; then
    echo "fuzzing failed: ${failed[*]} (inputs in $build/findings/)" >&2
    exit 1
fi
echo "fuzzing passed"
