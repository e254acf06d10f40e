#!/usr/bin/env bash
# Cross-builds the library and every test for 64-bit ARM and runs the whole
# suite under qemu's user-mode emulator.
#
#   scripts/test-arm64.sh        # build in build-arm64/, then ctest there
#
# Installs what is missing (cross compiler, qemu, GoogleTest sources). Warnings
# are errors. Fails when the library or any test binary is not an arm64 ELF, so
# a silent fall-back to the native compiler cannot pass as an ARM run.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"

ensure_packages cmake ninja-build file g++-aarch64-linux-gnu qemu-user googletest \
    android-libnativehelper-dev

build="$root/build-arm64"
jobs=2

cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-gnu.cmake" \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DVEXA_WERROR=ON \
    -DVEXA_BUILD_TESTS=ON
cmake --build "$build" -j "$jobs"

cd "$build"
bad=0

# The shared library, then every executable CTest runs, with the command that
# runs it. A binary of this build must run through the emulator; a host tool
# (a shell, cmake -P) is listed but not checked.
lib=$(find "$build" -name 'libvexatool64.so' -not -path '*/CMakeFiles/*' | head -n 1)
if [ -z "$lib" ]; then
    echo "libvexatool64.so was not built" >&2
    bad=1
fi
binaries=()
[ -n "$lib" ] && binaries+=("$lib")
ntests=0
while IFS= read -r command; do
    ntests=$((ntests + 1))
    mapfile -t argv < <(xargs -n 1 printf '%s\n' <<<"$command")
    if [ "$(basename "${argv[0]}")" = qemu-aarch64 ]; then
        i=1
        while [ "$i" -lt "${#argv[@]}" ] && [ "${argv[$i]#-}" != "${argv[$i]}" ]; do
            [ "${argv[$i]}" = -L ] && i=$((i + 1))
            i=$((i + 1))
        done
        binaries+=("${argv[$i]:-}")
    elif [[ "${argv[0]}" == "$build"/* ]]; then
        echo "runs without the emulator: $command" >&2
        binaries+=("${argv[0]}")
        bad=1
    else
        echo "host tool: $command"
    fi
done < <(ctest -N -V | sed -n 's/^[0-9]*: Test command: //p')

# Whatever else the build made (the tool, example tests, loadable test
# libraries) that the tests start or load themselves.
while IFS= read -r -d '' other; do
    case "$(file -b "$other")" in ELF*) binaries+=("$other") ;; esac
done < <(find "$build" -type f \( -perm -u+x -o -name '*.so' -o -name '*.so.*' \) \
    -not -path '*/CMakeFiles/*' -print0 | sort -z)

echo "== architecture of the library, the test binaries of $ntests tests and the rest they run"
while IFS= read -r bin; do
    desc=$(file -L "$bin")
    echo "$desc"
    if ! grep -q "ARM aarch64" <<<"$desc"; then
        echo "NOT ARM aarch64: $bin" >&2
        bad=1
    fi
done < <(printf '%s\n' "${binaries[@]}" | awk 'NF && !seen[$0]++')
[ "$bad" -eq 0 ] || exit 1

echo "== test suite under qemu-aarch64"
ctest -j "$jobs" --output-on-failure
