#!/usr/bin/env bash
# Installs a finished build into a temporary prefix and uses it as a user would:
# the installed vexahost runs from there without LD_LIBRARY_PATH, the manual
# pages render (their links too), no test program or library was installed,
# and a tiny consumer builds and runs through the CMake package and through
# pkg-config. Then the consumer adds the source tree with add_subdirectory:
# it links the same target, and neither builds nor installs any test target.
# With --prefix, only the installed tree's checks run, on a tree installed
# otherwise (scripts/check-deb.sh passes the unpacked packages).
#   scripts/check-install.sh [build-dir]
#   scripts/check-install.sh --prefix DIR
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages cmake ninja-build gcc pkg-config scdoc man-db
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check-install: $*" >&2
    exit 1
}

# Test binaries, the test support, GoogleTest and the example tests: in no
# install (nor any static library) and no vendoring build.
test_files='(_test|_test_so\.so|peer_program|gtest[^/]*|gmock[^/]*|test_support[^/]*|test_main[^/]*)$'
no_test_files() {
    local found
    found=$(find "$1" -type f | grep -E "$test_files|\.a\$" || true)
    [ -z "$found" ] || fail "$2 holds test files:"$'\n'"$found"
}
no_test_binaries() {
    local found
    found=$(find "$1" -path '*/CMakeFiles' -prune -o -type f \( -perm -u+x -o -name '*.so*' \) \
        -print | grep -E "$test_files" || true)
    [ -z "$found" ] || fail "$2 built test binaries:"$'\n'"$found"
}

vendored=""
if [ "${1:-}" = --prefix ]; then
    prefix=$2
else
    build=${1:-$root/build}
    prefix=$work/prefix
    # A build configured before scdoc was installed finds it now.
    cmake "$build" >/dev/null
    cmake --build "$build" -j 2 >/dev/null
    cmake --install "$build" --prefix "$prefix" >/dev/null
    vendored=yes
fi
no_test_files "$prefix" "the installed tree"

# The installed tool finds its library through its RPATH, from any prefix.
tool=$("$prefix/bin/vexahost" --version) || fail "the installed vexahost does not start"
version=${tool#vexahost }
[ "$(pkg-config --modversion "$(find "$prefix" -name vexatool.pc)")" = "$version" ] ||
    fail "vexatool.pc and vexahost --version disagree"

# Every page and link renders from the prefix's man directory.
mandir=$(dirname "$(find "$prefix" -path '*/man1/vexahost.1' | head -n 1)")
[ "$mandir" != . ] || fail "no manual pages installed (is scdoc missing from the build?)"
for page in vexahost.1 vexawire.1 vexatool.7 $(grep -o 'ipc_[a-z0-9_]*;' "$root/src/api/vexatool.map" | tr -d ';'); do
    name=${page%.[0-9]}
    MANPATH=$(dirname "$mandir") man -P cat "$name" 2>/dev/null | grep -q "$name" ||
        fail "man $name does not render from the installed tree"
done

# The consumer through the CMake package: CMake's build RPATH finds the library.
cmake -S "$root/tests/install" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer" | grep -F " $version " || fail "the consumer's header is not $version"

# Through pkg-config: a plain link without RPATH, so the loader needs the path.
libdir=$(dirname "$(find "$prefix" -name 'libvexatool64.so' | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc "$root/tests/install/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs vexatool)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"

if [ -n "$vendored" ]; then
    # The tree as a subproject: the same target name, and no tests.
    cmake -S "$root/tests/install" -B "$work/vendored" -G Ninja -DVEXA_SOURCE_DIR="$root" \
        >/dev/null
    cmake --build "$work/vendored" -j 2 >/dev/null
    "$work/vendored/consumer" | grep -qF " $version " || fail "the vendored consumer fails"
    no_test_binaries "$work/vendored" "the vendoring build"
    cmake --install "$work/vendored" --prefix "$work/vendored-prefix" >/dev/null
    no_test_files "$work/vendored-prefix" "the vendoring install"
    echo "vendored: add_subdirectory links vexatool::vexatool64, builds and installs no tests"
fi
echo "install check passed ($tool): $(find "$prefix" -type f | sed "s|$prefix/||" | sort | tr '\n' ' ')"
