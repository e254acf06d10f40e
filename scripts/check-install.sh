#!/usr/bin/env bash
# Installs a finished build into a temporary prefix, then builds and runs a tiny
# consumer against it twice: through the CMake package and through pkg-config.
# With --prefix, the consumer is built against a tree installed otherwise.
#   scripts/check-install.sh [build-dir]
#   scripts/check-install.sh --prefix DIR
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages pkg-config
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
if [ "${1:-}" = --prefix ]; then
    prefix=$2
else
    prefix=$work/prefix
    cmake --install "${1:-$root/build}" --prefix "$prefix" >/dev/null
fi

libdir=$(dirname "$(find "$prefix" -name libvexatool64.so | head -n 1)")
export LD_LIBRARY_PATH="$libdir"
cmake -S "$root/tests/install" -B "$work/consumer" -G Ninja \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/consumer" >/dev/null
"$work/consumer/consumer"

export PKG_CONFIG_PATH="$libdir/pkgconfig"
cc "$root/tests/install/consumer.c" -o "$work/consumer-pc" $(pkg-config --cflags --libs vexatool)
"$work/consumer-pc"
echo "install check passed: $(find "$prefix" -type f | sed "s|$prefix/||" | sort | tr '\n' ' ')"
