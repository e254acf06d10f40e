#!/usr/bin/env bash
# Looks through the library's sources (src/, include/) and its CMake files for
# interfaces that glibc has but Android's bionic lacks, gates above the
# library's minimum API level (21), or that the NDK's toolchain does not ship.
# Prints each offending line with the reason and exits 1; exits 0 when clean.
#
#   scripts/check-portability.sh
#
# Comments and the contents of string literals are not searched, so a log text
# or a contract comment may name anything. A line that is deliberately guarded
# (for example behind __ANDROID_API__ in the platform header) carries the
# marker "portability: checked" in a comment and is skipped.
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"

# One rule a line: extended regular expression, a tab, the reason.
source_rules=$(
    cat <<'EOF'
<execinfo\.h>|\bbacktrace(_symbols(_fd)?)?[[:space:]]*\(	execinfo/backtrace: bionic has them only from API 33
<error\.h>|\berror_at_line[[:space:]]*\(	error.h/error(): glibc only
\b(get|set|make|swap)context[[:space:]]*\(	ucontext functions: bionic has them only from API 26
\bfd_set\b|\bFD_(SET|ZERO|ISSET|CLR)\b	fd_set/FD_SET: aborts the host for descriptors >= 1024; wait with poll
<sys/sysctl\.h>|\bsysctl[[:space:]]*\(	sysctl: not in bionic
\bqsort_r[[:space:]]*\(	qsort_r: glibc extension, not in bionic at API 21
\bstrverscmp[[:space:]]*\(	strverscmp: glibc extension, not in bionic at API 21
<gnu/libc-version\.h>|\bgnu_get_libc_(version|release)[[:space:]]*\(	glibc version query: glibc only
\bpthread_(cancel|testcancel|setcancelstate|setcanceltype)[[:space:]]*\(|\bPTHREAD_CANCEL	pthread cancellation: not in bionic
\bpthread_mutexattr_(set|get)robust[[:space:]]*\(|\bpthread_mutex_consistent[[:space:]]*\(	robust mutexes: not in bionic
\bpthread_(set|get)affinity_np[[:space:]]*\(	pthread affinity: not in bionic (use sched_setaffinity)
\bpthread_yield[[:space:]]*\(	pthread_yield: not in bionic (use sched_yield)
\bpthread_getname_np[[:space:]]*\(	pthread_getname_np: bionic has it only from API 26
<spawn\.h>|\bposix_spawnp?[[:space:]]*\(	posix_spawn: bionic has it only from API 28
<glob\.h>|\bglob[[:space:]]*\(	glob: bionic has it only from API 28
<wordexp\.h>|\bwordexp[[:space:]]*\(	wordexp: not in bionic
<iconv\.h>	iconv: bionic has it only from API 28
<aio\.h>	POSIX aio: bionic has it only from API 28
<mqueue\.h>	POSIX message queues: not usable on Android
<sys/(sem|shm|msg)\.h>|\b(sem|shm|msg)(get|ctl|op|at|dt|snd|rcv)[[:space:]]*\(	System V IPC: absent or refused on Android
<sys/timeb\.h>|\bftime[[:space:]]*\(	ftime: not in bionic
<sys/io\.h>|<mcheck\.h>|<printf\.h>|<obstack\.h>|<argp\.h>|<fstab\.h>	glibc-only header
\bon_exit[[:space:]]*\(	on_exit: glibc only (use atexit)
\bdlmopen[[:space:]]*\(|\bRTLD_DEEPBIND\b	dlmopen/RTLD_DEEPBIND: not in bionic
\b(getrandom|getentropy)[[:space:]]*\(	getrandom/getentropy: bionic has them only from API 28
\b(getpwent|getgrent|setpwent|setgrent|endpwent|endgrent)[[:space:]]*\(	passwd/group enumeration: bionic has it only from API 26
\b(aligned_alloc|reallocarray|memfd_create|statx|renameat2|close_range|copy_file_range)[[:space:]]*\(	bionic has it only at a later API level
\b(ecvt|fcvt|gcvt)[[:space:]]*\(	ecvt/fcvt/gcvt: not in bionic
<bits/stdc\+\+\.h>|<ext/[a-z_]+\.h>|\b__gnu_cxx::	libstdc++ internals: the NDK ships libc++
EOF
)

# CMake files of the shipped library (the tests are not built for Android).
cmake_rules=$(
    cat <<'EOF'
-lpthread\b|(^|[[:space:](])pthread([[:space:])]|$)	libpthread: bionic has threads in libc; link Threads::Threads
-lrt\b|(^|[[:space:](])rt([[:space:])]|$)	librt: bionic has it in libc
-lstdc\+\+fs\b|(^|[[:space:](])stdc\+\+fs([[:space:])]|$)	libstdc++fs: the NDK ships libc++
EOF
)

# Prints the file with comments and string/character literal contents blanked,
# one output line per input line, so line numbers stay right.
strip_comments() {
    awk '
    BEGIN { inBlock = 0 }
    {
        line = $0; out = ""; n = length(line); i = 1; inStr = ""
        while (i <= n) {
            c = substr(line, i, 1); two = substr(line, i, 2)
            if (inBlock) {
                if (two == "*/") { inBlock = 0; out = out "  "; i += 2 } else { out = out " "; i++ }
            } else if (inStr != "") {
                if (c == "\\") { out = out "  "; i += 2; continue }
                if (c == inStr) { inStr = ""; out = out c } else { out = out " " }
                i++
            } else if (two == "//") {
                break
            } else if (two == "/*") {
                inBlock = 1; out = out "  "; i += 2
            } else if (c == "\"" || c == "\047") {
                inStr = c; out = out c; i++
            } else {
                out = out c; i++
            }
        }
        print out
    }' "$1"
}

# Like strip_comments for CMake: drops "#" comments, keeps strings (flags live there).
strip_cmake_comments() {
    sed -e 's/[[:space:]]*#.*$//' "$1"
}

# check <file> <stripper> <rules>: prints "file:line: text  [reason]" for each hit.
found=0
check() {
    local file=$1 stripper=$2 rules=$3
    local stripped pattern reason lineno original hits=""
    stripped=$("$stripper" "$file")
    while IFS=$'\t' read -r pattern reason; do
        [ -n "$pattern" ] || continue
        while IFS=: read -r lineno _; do
            original=$(sed -n "${lineno}p" "$file")
            case "$original" in *"portability: checked"*) continue ;; esac
            hits+="$lineno"$'\t'"$reason"$'\n'
        done < <(grep -nE -e "$pattern" <<<"$stripped" || true)
    done <<<"$rules"
    [ -n "$hits" ] || return 0
    found=1
    while IFS=$'\t' read -r lineno reason; do
        original=$(sed -n "${lineno}p" "$file")
        printf '%s:%s: %s\n    -> %s\n' "$file" "$lineno" "$(sed 's/^[[:space:]]*//' <<<"$original")" "$reason"
    done < <(printf '%s' "$hits" | sort -n -k1,1 -s)
}

while IFS= read -r -d '' file; do
    check "$file" strip_comments "$source_rules"
done < <(find src include -type f \( -name '*.h' -o -name '*.hh' -o -name '*.hpp' \
    -o -name '*.c' -o -name '*.cc' -o -name '*.cpp' -o -name '*.inc' \) -print0 2>/dev/null | sort -z)

while IFS= read -r -d '' file; do
    check "$file" strip_cmake_comments "$cmake_rules"
done < <(find CMakeLists.txt src include cmake -type f \
    \( -name CMakeLists.txt -o -name '*.cmake' \) -print0 2>/dev/null | sort -z)

if [ "$found" -ne 0 ]; then
    echo "portability check failed: the lines above do not build or behave on Android (API 21)" >&2
    exit 1
fi
echo "portability check passed: src/, include/ and the CMake files use nothing glibc-only"
