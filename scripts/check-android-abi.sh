#!/usr/bin/env bash
# Builds libvexatool64.so and libvexatool64_jni.so for Android on arm64 at the
# lowest API level the library supports (VEXA_ANDROID_MIN_API in
# cmake/VexaAndroid.cmake) against Android's own C library, bionic, with
# Debian's clang, libc++ headers and lld, and checks what came out:
#
#   - every source compiles against bionic's headers with the project's
#     warnings as errors and -Werror=unguarded-availability, so a function
#     bionic has only from a later level is an error;
#   - both libraries link with --no-undefined against libc, libm and libdl of
#     that level; the only other library is the C++ runtime, and every symbol
#     taken from it is listed below, so a new one is seen;
#   - scripts/check-elf.sh: 16 KB segments, the ten exports, the libraries
#     needed.
#
#   scripts/check-android-abi.sh            # sysroot assembled from bionic
#   scripts/check-android-abi.sh SYSROOT    # an NDK's sysroot
#   ANDROID_NDK=... scripts/check-android-abi.sh
#
# Without an NDK the sysroot is assembled in build-android-abi/sysroot from
# bionic's headers and symbol lists in ../shared/android-bionic (beside this
# checkout, or beside the one a local clone came from; or VEXA_BIONIC_DIR), laid out as the NDK lays out its own: headers in
# usr/include (jni.h from Debian's android-libnativehelper-dev, a stand-in
# android/ndk-version.h), stub libc.so, libdl.so and libm.so in
# usr/lib/aarch64-linux-android/<level> holding exactly the symbols of that
# level. Either way the C++ runtime linked is a stub libc++_shared.so with
# the symbols of Debian's libc++, libc++abi and libunwind, the runtime of the
# headers used. Nothing runs: this proves the libraries build and link for a
# device, not that they work on one.
set -euo pipefail
export LC_ALL=C # one sort order for sort, comm and join
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages cmake ninja-build clang lld libc++-dev libc++abi-dev libunwind-14 libclang-rt-14-dev \
    binutils file android-libnativehelper-dev

out="$root/build-android-abi"
api=$(sed -n 's/^set(VEXA_ANDROID_MIN_API \([0-9]*\))$/\1/p' "$root/cmake/VexaAndroid.cmake")
[ -n "$api" ] || { echo "VEXA_ANDROID_MIN_API not found in cmake/VexaAndroid.cmake" >&2; exit 1; }
target=aarch64-linux-android$api
gen="$out/gen"
mkdir -p "$gen"

# stub_library LIST OUTPUT [LINK_FLAGS...]: a shared library that defines each
# symbol of LIST ("code NAME" or "data NAME" a line) and does nothing else.
stub_library() {
    local list=$1 lib=$2
    shift 2
    awk '$1 == "code" { printf ".text\n.globl %s\n.type %s, %%function\n%s:\n ret\n", $2, $2, $2 }
         $1 == "data" { printf ".data\n.globl %s\n.type %s, %%object\n.size %s, 8\n%s:\n .zero 8\n", $2, $2, $2, $2 }' \
        "$list" >"${list%.*}.s"
    clang --target="$target" -nostdlib -shared -fuse-ld=lld -Wl,-soname,"$(basename "$lib")" "$@" \
        -o "$lib" "${list%.*}.s"
}

# stub_from_map NAME MAP_FILE OUTPUT: a shared library with the symbols of a bionic
# symbol list that an arm64 program built for $api may use: variables as
# data, functions as code, in the list's symbol versions.
stub_from_map() {
    local name=$1 map=$2 lib=$3
    awk -v arch=arm64 -v api="$api" -v list_out="$gen/$name.syms" -v map_out="$gen/$name.map" '
    function level_of(tags,    n, i, t, v, common, specific, key) {
        key = "introduced-" arch "="; common = ""; specific = ""
        n = split(tags, t, /[ \t]+/)
        for (i = 1; i <= n; i++) {
            if (t[i] ~ /^introduced=/) common = substr(t[i], 12)
            else if (index(t[i], key) == 1) specific = substr(t[i], length(key) + 1)
        }
        v = specific != "" ? specific : common
        if (v == "") return 0
        if (v in letters) return letters[v]
        return v ~ /^[0-9]+$/ ? v + 0 : 100000  # a codename not yet released
    }
    function has_tag(tags, tag) { return index(" " tags " ", " " tag " ") > 0 }
    function in_arch(tags,    n, i, t, any) {
        n = split(tags, t, /[ \t]+/); any = 0
        for (i = 1; i <= n; i++)
            if (t[i] ~ /^(arm|arm64|riscv64|x86|x86_64)$/) { any = 1; if (t[i] == arch) return 1 }
        return !any
    }
    BEGIN {
        n = split("L=21 M=23 N=24 O=26 P=28 Q=29 R=30 S=31 T=33 U=34 V=35", pairs, " ")
        for (i = 1; i <= n; i++) { split(pairs[i], kv, "="); letters[kv[1]] = kv[2] }
        printf "" > list_out
    }
    {
        line = $0; tags = ""
        if ((p = index(line, "#")) > 0) { tags = substr(line, p + 1); line = substr(line, 1, p - 1) }
        gsub(/^[ \t]+|[ \t]+$/, "", line); gsub(/^[ \t]+|[ \t]+$/, "", tags)
    }
    line ~ /^[A-Za-z0-9_]+[ \t]*\{$/ {
        version = line; sub(/[ \t]*\{$/, "", version); body = ""
        keep = version !~ /_(PRIVATE|PLATFORM)$/ && !has_tag(tags, "platform-only") &&
               in_arch(tags) && level_of(tags) <= api
        next
    }
    line ~ /^\}/ {
        if (keep && body != "") printf "%s {\n  global:\n%s};\n", version, body > map_out
        keep = 0; next
    }
    keep && line ~ /^[A-Za-z0-9_]+;$/ {
        if (!in_arch(tags) || level_of(tags) > api || has_tag(tags, "apex") ||
            has_tag(tags, "llndk") || has_tag(tags, "platform-only")) next
        sym = substr(line, 1, length(line) - 1)
        body = body "    " sym ";\n"
        print (has_tag(tags, "var") ? "data " : "code ") sym > list_out
    }' "$map"
    stub_library "$gen/$name.syms" "$lib" -Wl,--version-script="$gen/$name.map"
}

# The sysroot: the one given, the NDK's, or one assembled from bionic.
sysroot=${1:-}
if [ -z "$sysroot" ] && [ -n "${ANDROID_NDK:-}" ]; then
    sysroot="$ANDROID_NDK/toolchains/llvm/prebuilt/linux-x86_64/sysroot"
fi
if [ -n "$sysroot" ]; then
    sysroot=$(cd "$sysroot" && pwd)
    [ -f "$sysroot/usr/lib/aarch64-linux-android/$api/libc.so" ] ||
        { echo "$sysroot has no usr/lib/aarch64-linux-android/$api/libc.so: not an NDK sysroot" >&2; exit 1; }
    echo "== sysroot: $sysroot"
else
    # Beside this checkout, or beside the checkout a local clone was made from.
    bionic=${VEXA_BIONIC_DIR:-$root/../shared/android-bionic}
    origin=$(git -C "$root" remote get-url origin 2>/dev/null || true)
    if [ -z "${VEXA_BIONIC_DIR:-}" ] && [ ! -f "$bionic/libc/libc.map.txt" ] && [ -d "$origin" ]; then
        bionic=$origin/../shared/android-bionic
    fi
    [ -f "$bionic/libc/libc.map.txt" ] ||
        { echo "bionic's headers and symbol lists not found in $bionic (set VEXA_BIONIC_DIR)" >&2; exit 1; }
    bionic=$(cd "$bionic" && pwd)
    sysroot="$out/sysroot"
    echo "== sysroot assembled from $bionic in $sysroot"
    rm -rf "$sysroot"
    inc="$sysroot/usr/include"
    libdir="$sysroot/usr/lib/aarch64-linux-android/$api"
    mkdir -p "$inc/aarch64-linux-android" "$libdir"
    # The NDK's layout: bionic's headers, the kernel's architecture-neutral
    # and Android's own uapi headers merged over them, the arm64 ones under
    # the target's directory. Times are kept, so a rerun rebuilds nothing.
    cp -Rp "$bionic/libc/include/." "$inc/"
    for dir in "$bionic"/libc/kernel/uapi/*/; do
        case "$(basename "$dir")" in
            asm-generic) cp -Rp "$dir" "$inc/" ;;
            asm-*) ;; # one architecture's
            *) cp -Rp "$dir" "$inc/" ;;
        esac
    done
    cp -Rp "$bionic/libc/kernel/android/uapi/." "$inc/"
    cp -Rp "$bionic/libc/kernel/uapi/asm-arm64/asm" "$inc/aarch64-linux-android/"
    cp -p /usr/include/android/nativehelper/jni.h "$inc/"
    # libc++'s Android support includes the NDK's version header; a release
    # after r16 takes the code path that bionic's headers expect.
    cat >"$inc/android/ndk-version.h" <<'EOF'
#pragma once
/* Stand-in for the NDK's header, which bionic does not ship. */
#define __NDK_MAJOR__ 27
#define __NDK_MINOR__ 0
#define __NDK_BETA__ 0
#define __NDK_BUILD__ 0
#define __NDK_CANARY__ 0
EOF
    touch -d @0 "$inc/android/ndk-version.h"
    stub_from_map libc "$bionic/libc/libc.map.txt" "$libdir/libc.so"
    stub_from_map libm "$bionic/libm/libm.map.txt" "$libdir/libm.so"
    stub_from_map libdl "$bionic/libdl/libdl.map.txt" "$libdir/libdl.so"
    # The start and end files of a shared library: the handle that
    # __cxa_atexit registers destructors under, their call at unload, and the
    # note that marks the file as built for Android at this level.
    cat >"$gen/crtbegin_so.c" <<EOF
extern void __cxa_finalize(void*);
__attribute__((visibility("hidden"))) void* __dso_handle = &__dso_handle;
__attribute__((destructor)) static void on_unload(void) { __cxa_finalize(&__dso_handle); }
__asm__(".pushsection .note.android.ident, \"a\", %note\n .balign 4\n"
        " .long 8, 4, 1\n .asciz \"Android\"\n .long $api\n .popsection");
EOF
    : >"$gen/crtend_so.c"
    clang --target="$target" -fPIC -O2 -c -o "$libdir/crtbegin_so.o" "$gen/crtbegin_so.c"
    clang --target="$target" -fPIC -c -o "$libdir/crtend_so.o" "$gen/crtend_so.c"
fi
libdir="$sysroot/usr/lib/aarch64-linux-android/$api"

# The C++ runtime: what Debian's libc++, libc++abi and libunwind export, and
# the compiler's own runtime (compiler-rt's builtins, which the NDK links
# statically: the thread_local variables of the library call
# __emutls_get_address below level 29). Built for glibc, whose mbstate_t is
# named __mbstate_t in C++ names where bionic's is mbstate_t.
llvm_lib=$(dirname "$(realpath "$(command -v clang++)")")/../lib
builtins=$(clang --rtlib=compiler-rt -print-libgcc-file-name)
[ -f "$builtins" ] || { echo "compiler-rt's builtins not found: $builtins" >&2; exit 1; }
stl="$out/stl"
mkdir -p "$stl"
{
    for lib in libc++ libc++abi libunwind; do
        nm -D --defined-only "$llvm_lib/$lib.so.1" | awk -v lib="$lib" '{ print $2, $3, lib }'
    done
    nm --defined-only "$builtins" 2>/dev/null | awk 'NF == 3 && $2 ~ /[A-Z]/ { print $2, $3, "compiler-rt" }'
} | awk '$2 !~ /^(__bss_start|_edata|_end|_init|_fini)$/ {
        sub(/@.*/, "", $2); gsub(/11__mbstate_t/, "9mbstate_t", $2)
        if (!seen[$2]++) print
    }' | sort -k2,2 >"$gen/cxx-runtime.txt"
awk '{ print ($1 ~ /[BDRVu]/ ? "data " : "code ") $2 }' "$gen/cxx-runtime.txt" >"$gen/libc++_shared.syms"
stub_library "$gen/libc++_shared.syms" "$stl/libc++_shared.so"

echo "== build for $target"
build="$out/cmake"
rm -f "$build/CMakeCache.txt" # what was found in another sysroot does not hold
cmake -S "$root" -B "$build" -G Ninja \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/aarch64-linux-android.cmake" \
    -DVEXA_ANDROID_SYSROOT="$sysroot" -DVEXA_ANDROID_STL_DIR="$stl" \
    -DANDROID_ABI=arm64-v8a -DANDROID_PLATFORM="android-$api" -DANDROID_STL=c++_shared \
    -DCMAKE_BUILD_TYPE=Release -DVEXA_WERROR=ON -DVEXA_BUILD_TESTS=OFF -DVEXA_BUILD_JAVA=ON >/dev/null
cmake --build "$build" -j 2 --target vexatool64 vexatool64_jni

# Where each undefined symbol of both libraries comes from. --no-undefined has
# made sure each one is defined somewhere; this names the C++ runtime's and
# fails on one that nothing defines (a weak reference escapes --no-undefined).
core="$build/src/api/libvexatool64.so"
jni="$build/java/libvexatool64_jni.so"
defined() { nm -D --defined-only "$@" | awk '{ sub(/@.*/, "", $3); print $3 }' | sort -u; }
bad=0
for lib in "$core" "$jni"; do
    providers=("$libdir/libc.so" "$libdir/libm.so" "$libdir/libdl.so")
    from="libc, libm, libdl"
    if [ "$lib" = "$jni" ]; then
        providers+=("$core")
        from+=" and libvexatool64.so"
    fi
    undefined=$(nm -D --undefined-only "$lib" | awk '{ sub(/@.*/, "", $2); print $2 }' | sort -u)
    from_c=$(comm -12 <(echo "$undefined") <(defined "${providers[@]}"))
    from_cxx=$(comm -23 <(echo "$undefined") <(echo "$from_c") | comm -12 - <(defined "$stl/libc++_shared.so"))
    unresolved=$(comm -23 <(echo "$undefined") <(printf '%s\n' "$from_c" "$from_cxx" | sort -u))
    echo "$(basename "$lib"): $(grep -c . <<<"$from_c") symbols from $from," \
        "$(grep -c . <<<"$from_cxx") from the C++ runtime:"
    if [ -n "$from_cxx" ]; then
        join -1 1 -2 2 -o 2.3,1.1 <(echo "$from_cxx") "$gen/cxx-runtime.txt" |
            while read -r origin sym; do
                readable=$(c++filt "$sym")
                [ "$readable" = "$sym" ] && readable="" || readable="  $readable"
                printf '    %-12s %s%s\n' "$origin" "$sym" "$readable"
            done
    fi
    if [ -n "$unresolved" ]; then
        echo "FAIL: $(basename "$lib") needs what no library of level $api defines (a weak" \
            "reference too: look a later level's function up with dlsym instead): ${unresolved//$'\n'/ }" >&2
        bad=1
    fi
done
[ "$bad" -eq 0 ] || exit 1

"$root/scripts/check-elf.sh" "$build"
echo "Android ABI check passed: both libraries build and link for $target"
