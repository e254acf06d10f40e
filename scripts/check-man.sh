#!/usr/bin/env bash
# Checks the manual pages of docs/man: each scdoc source turns into roff that
# mandoc's linter accepts, and the pages cover what the code offers: every
# exported function (a page, or a .so link to a page that names it), every
# vexahost option, every environment variable the library or the tool reads
# (also in README.md) and every event code of the header.
#   scripts/check-man.sh
set -euo pipefail
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
source "$root/scripts/ensure-packages.sh"
ensure_packages scdoc mandoc
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
man="$root/docs/man"
failed=0

fail() {
    echo "check-man: $*" >&2
    failed=1
}

# What scdoc always writes and mandoc remarks on: an empty paragraph after
# every heading, lower-case page titles, long input lines.
scdoc_style='skipping paragraph macro|lower case character in document title|input text line longer than 80 bytes'
for source in "$man"/*.scd; do
    page=$(basename "$source" .scd)
    sed 's/@PROJECT_VERSION@/0.0.0/' "$source" | scdoc >"$work/$page" || {
        fail "scdoc refuses $page.scd"
        continue
    }
    lint=$(mandoc -T lint -W style "$work/$page" 2>&1 | grep -vE "$scdoc_style" || true)
    [ -z "$lint" ] || fail "mandoc on $page:"$'\n'"$lint"
done

# The functions: a page of their own, or a link "name.3 page.3" in
# docs/man/CMakeLists.txt to a page whose NAME line lists them.
for fn in $(sed -n 's/^ *\(ipc_[a-z0-9_]*\);$/\1/p' "$root/src/api/vexatool.map"); do
    page=$fn.3
    if [ ! -f "$man/$page.scd" ]; then
        page=$(sed -n "s/^ *$fn\.3 \([a-z0-9_]*\.3\))\?\$/\1/p" "$man/CMakeLists.txt")
        [ -n "$page" ] || { fail "no page and no link for $fn"; continue; }
    fi
    [ -f "$man/$page.scd" ] || { fail "$fn links to $page, which does not exist"; continue; }
    grep -A2 '^# NAME' "$man/$page.scd" | grep -qE "(^|[ ,])$fn[ ,]" ||
        fail "$page does not name $fn"
done

# vexahost's options, long ones from its option table, short ones from getopt's string.
main="$root/tools/vexahost/main.cc"
for opt in $(sed -n 's/.*{"\([a-z-]*\)", *[a-z_]*argument.*/\1/p' "$main"); do
    grep -qF -- "*--$opt*" "$man/vexahost.1.scd" || fail "vexahost.1 lacks --$opt"
done
shorts=$(sed -n 's/.*getopt_long(argc, argv, "\([^"]*\)".*/\1/p' "$main" | tr -d ':')
for opt in $(echo "$shorts" | grep -o .); do
    grep -qF -- "*-$opt*" "$man/vexahost.1.scd" || fail "vexahost.1 lacks -$opt"
done

# Environment variables read anywhere in the library or the tool.
for var in $(grep -rhoE '"(VEXA|QZ)_[A-Z_]+"' "$root/src" "$root/tools" | tr -d '"' | sort -u); do
    grep -qF "*$var*" "$man/vexatool.7.scd" || fail "vexatool.7 lacks $var"
    grep -qF "$var" "$root/README.md" || fail "README.md lacks $var"
done

# The library's event codes.
for code in $(grep -oE '^ *CLIENT_IPC_[A-Z_]+ = [0-9]+' "$root/include/vexatool.h.in" |
    awk '{print $1 ":" $3}'); do
    name=${code%:*} number=${code#*:}
    grep -qE "^: +$name\$" "$man/vexatool.7.scd" && grep -qE "^\| +$number\$" "$man/vexatool.7.scd" ||
        fail "vexatool.7's event table lacks $name ($number)"
done

[ "$failed" -eq 0 ] || exit 1
echo "check-man passed: $(ls "$man"/*.scd | wc -l) pages lint clean and cover the code"
