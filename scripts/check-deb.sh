#!/usr/bin/env bash
# Builds the Debian packages with CPack, twice: as shipped (unversioned
# libvexatool64.so) and with -DVEXA_VERSIONED_SONAME=ON. Each time it inspects
# them with dpkg-deb (names, the project's version, the library in the
# multiarch directory, a machine-readable copyright file in each, the manual
# pages), unpacks them into a scratch root (dpkg-deb -x, nothing is installed
# on this machine) and runs scripts/check-install.sh on that root: the
# unpacked vexahost without LD_LIBRARY_PATH, the manual pages, and the
# consumer of tests/install through the CMake package and through pkg-config.
#   scripts/check-deb.sh        # builds in build-deb/ and build-deb-versioned/
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages cmake ninja-build g++ dpkg-dev pkg-config file scdoc python3-debian
multiarch=$(dpkg-architecture -qDEB_HOST_MULTIARCH)
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
    # Configured for /usr, as Debian's own tools do: GNUInstallDirs then
    # chooses the multiarch library directory (cpack refuses anything else).
    cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVEXA_WERROR=ON \
        -DVEXA_BUILD_TESTS=OFF -DCMAKE_INSTALL_PREFIX=/usr "$@" >/dev/null
    cmake --build "$build" -j 2 >/dev/null
    rm -f "$build"/*.deb
    (cd "$build" && cpack -G DEB >/dev/null)

    local scratch="$work/$(basename "$build")"
    local version
    version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
    local pkg deb
    for pkg in "$runtime" libvexatool64-dev vexahost; do
        deb=$(ls "$build/${pkg}_"*.deb 2>/dev/null) || fail "no package $pkg in $build"
        [ "$(dpkg-deb --field "$deb" Package)" = "$pkg" ] || fail "$deb is not $pkg"
        [ "$(dpkg-deb --field "$deb" Version)" = "$version" ] || fail "$deb is not version $version"
        echo "== $(basename "$deb"): Depends: $(dpkg-deb --field "$deb" Depends)"
        dpkg-deb --contents "$deb" | awk '$6 !~ /\/$/ {print "   " $6, $7, $8}'
        dpkg-deb -x "$deb" "$scratch"
        /usr/bin/python3 -c 'import sys; from debian.copyright import Copyright
c = Copyright(open(sys.argv[1]), strict=True)
assert [p.license.synopsis for p in c.all_files_paragraphs()] == ["Apache-2.0"]' \
            "$scratch/usr/share/doc/$pkg/copyright" || fail "$pkg: no valid Apache-2.0 copyright file"
    done
    dpkg-deb --field "$build/libvexatool64-dev_"*.deb Depends | grep -qx "$runtime (= [0-9.]*)" ||
        fail "the -dev package does not depend on $runtime"

    local usr="$scratch/usr"
    local lib
    lib=$(find "$usr" -name 'libvexatool64.so*' -type f | head -n 1)
    [ -n "$lib" ] || fail "no library in $runtime"
    [ "$(dirname "$lib")" = "$usr/lib/$multiarch" ] || fail "$lib is not in /usr/lib/$multiarch"
    local got
    got=$(readelf -d "$lib" | sed -n 's/.*Library soname: \[\(.*\)\]/\1/p')
    [ "$got" = "$soname" ] || fail "SONAME $got, expected $soname"
    [ -f "$usr/include/vexatool.h" ] || fail "no header in libvexatool64-dev"
    [ -x "$usr/bin/vexahost" ] || fail "no vexahost in vexahost"
    [ "$("$usr/bin/vexawire" --version)" = "vexawire $(dpkg-deb --field "$build/vexahost_"*.deb Version)" ] ||
        fail "the packaged vexawire does not run or has another version"
    [ -f "$usr/share/man/man3/ipc_send_command.3" ] && [ -f "$usr/share/man/man7/vexatool.7" ] ||
        fail "no manual pages in libvexatool64-dev"

    "$root/scripts/check-install.sh" --prefix "$usr"
    echo "== $runtime ($soname): packages inspected, unpacked and used by the consumer"
}

check_variant "$root/build-deb" libvexatool64 libvexatool64.so
check_variant "$root/build-deb-versioned" libvexatool64-1 libvexatool64.so.1 \
    -DVEXA_VERSIONED_SONAME=ON
echo "check-deb passed"
