#!/usr/bin/env bash
# Builds the Debian packages with CPack, twice: as shipped (unversioned
# libvexatool64.so) and with -DVEXA_VERSIONED_SONAME=ON. Each time it inspects
# them with dpkg-deb, unpacks them into a scratch root (dpkg-deb -x, nothing
# is installed on this machine) and builds and runs the install-check consumer
# of tests/install against that root, through the CMake package and through
# pkg-config.
#   scripts/check-deb.sh        # builds in build-deb/ and build-deb-versioned/
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages cmake ninja-build g++ dpkg-dev pkg-config file
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

fail() {
    echo "check-deb: $*" >&2
    exit 1
}

# check_variant BUILD-DIR RUNTIME-PACKAGE SONAME [cmake options...]
check_variant() {
    local build=$1 runtime=$2 soname=$3
    shift 3
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXA_WERROR=ON \
        -DVEXA_BUILD_TESTS=OFF "$@" >/dev/null
    cmake --build "$build" -j 2 >/dev/null
    rm -f "$build"/*.deb
    (cd "$build" && cpack -G DEB >/dev/null)

    local scratch="$work/$(basename "$build")"
    local pkg deb
    for pkg in "$runtime" libvexatool64-dev vexahost; do
        deb=$(ls "$build/${pkg}_"*.deb 2>/dev/null) || fail "no package $pkg in $build"
        [ "$(dpkg-deb --field "$deb" Package)" = "$pkg" ] || fail "$deb is not $pkg"
        echo "== $(basename "$deb"): Depends: $(dpkg-deb --field "$deb" Depends)"
        dpkg-deb --contents "$deb" | awk '$6 !~ /\/$/ {print "   " $6, $7, $8}'
        dpkg-deb -x "$deb" "$scratch"
    done
    dpkg-deb --field "$build/libvexatool64-dev_"*.deb Depends | grep -qx "$runtime (= [0-9.]*)" ||
        fail "the -dev package does not depend on $runtime"

    local usr="$scratch/usr"
    local lib
    lib=$(find "$usr" -name 'libvexatool64.so*' -type f | head -n 1)
    [ -n "$lib" ] || fail "no library in $runtime"
    local libdir
    libdir=$(dirname "$lib")
    local got
    got=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
    [ "$got" = "$soname" ] || fail "SONAME $got, expected $soname"
    [ -f "$usr/include/vexatool.h" ] || fail "no header in libvexatool64-dev"
    [ -x "$usr/bin/vexahost" ] || fail "no vexahost in vexahost"
    LD_LIBRARY_PATH="$libdir" "$usr/bin/vexahost" --help | grep -q junit-xml ||
        fail "the packaged vexahost does not run"

    "$root/scripts/check-install.sh" --prefix "$usr"
    echo "== $runtime ($soname): packages inspected, unpacked and used by the consumer"
}

check_variant "$root/build-deb" libvexatool64 libvexatool64.so
check_variant "$root/build-deb-versioned" libvexatool64-1 libvexatool64.so.1 \
    -DVEXA_VERSIONED_SONAME=ON
echo "check-deb passed"
