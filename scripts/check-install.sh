#!/usr/bin/env bash
# Installs a finished build into a temporary prefix, then builds and runs a tiny
# consumer against it twice: through the CMake package and through pkg-config.
#   scripts/check-install.sh [build-dir]
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages pkg-config
build=${1:-$root/build}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

cmake --install "$build" --prefix "$work/prefix" >/dev/null
cmake -S "$root/tests/install" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$work/prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

libdir=$(dirname "$(find "$work/prefix" -name libvexatool64.so | head -n 1)")
export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc "$root/tests/install/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs vexatool)
LD_LIBRARY_PATH="$libdir" "$work/consumer-pc"
echo "install check passed: $(find "$work/prefix" -type f | sed "s|$work/prefix/||" | sort | tr '\n' ' ')"
