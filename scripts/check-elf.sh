#!/usr/bin/env bash
# Checks the binaries of an arm64 or Android build before they go to devices:
#   - every loadable segment of every ELF file the build made is aligned to
#     16 KB (0x4000) or more, so that it loads where pages are 16 KB;
#   - libvexatool64.so is an arm64 library that exports exactly the ten ipc_
#     functions and needs nothing beyond libc, libm, libdl, liblog and the C++
#     runtime; libvexatool64_jni.so, when built, needs only those and
#     libvexatool64.so.
#
#   scripts/check-elf.sh build-arm64
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages binutils file

build=${1:?"usage: scripts/check-elf.sh BUILD_DIR"}
bad=0
fail() {
    echo "FAIL: $*" >&2
    bad=1
}

elf_files=()
while IFS= read -r -d '' candidate; do
    case "$(file -b "$candidate")" in ELF*) elf_files+=("$candidate") ;; esac
done < <(find "$build" -type f \( -name '*.so' -o -perm -u+x \) -not -path '*/CMakeFiles/*' -print0)
[ ${#elf_files[@]} -gt 0 ] || fail "no ELF files in $build"

for elf in "${elf_files[@]}"; do
    while read -r align; do
        [ $((align)) -ge $((0x4000)) ] || fail "${elf#"$build"/}: a loadable segment aligned to $align"
    done < <(readelf -lW "$elf" | awk '$1 == "LOAD" { print $NF }')
done
echo "alignment of the loadable segments checked in ${#elf_files[@]} ELF files"

# needs LIBRARY EXTRA_PATTERN: what the library needs beyond the allowed runtime.
runtime='^(libc|libm|libdl|liblog|libstdc\+\+|libc\+\+|libc\+\+_shared|libgcc_s)\.so(\.[0-9]+)*$'
check_needs() {
    local lib=$1 extra=$2 needed
    while read -r needed; do
        [[ "$needed" =~ $runtime || "$needed" =~ $extra ]] || fail "$(basename "$lib") needs $needed"
    done < <(readelf -dW "$lib" | sed -n 's/.*(NEEDED).*\[\(.*\)\]$/\1/p')
}

core=$(find "$build" -name libvexatool64.so -not -path '*/CMakeFiles/*' | head -n 1)
if [ -z "$core" ]; then
    fail "libvexatool64.so not found in $build"
else
    readelf -hW "$core" | grep -q 'Machine: *AArch64' || fail "$core is not an arm64 library"
    exports=$(readelf --dyn-syms -W "$core" |
        awk '$7 != "UND" && ($5 == "GLOBAL" || $5 == "WEAK") { sub(/@.*/, "", $8); print $8 }' | sort)
    expected=$(printf '%s\n' ipc_init_server ipc_uninit_server ipc_run_test ipc_send_command \
        ipc_kill_client ipc_set_su_file_path ipc_init_client ipc_init_client2 ipc_send_message \
        ipc_uninit_client | sort)
    [ "$exports" = "$expected" ] ||
        fail "libvexatool64.so exports other than the ten functions:$(diff <(echo "$expected") <(echo "$exports") | sed -n 's/^[<>]/ &/p' | tr '\n' ' ')"
    check_needs "$core" '^$'
fi

jni=$(find "$build" -name libvexatool64_jni.so -not -path '*/CMakeFiles/*' | head -n 1)
if [ -n "$jni" ]; then
    check_needs "$jni" '^libvexatool64\.so$'
fi

[ "$bad" -eq 0 ] || exit 1
echo "ELF check passed: $core${jni:+ and $jni}"
