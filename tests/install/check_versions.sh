#!/usr/bin/env bash
# One version everywhere: the CMake project's version against every artefact
# that carries it. Fails on any disagreement and names what it could not check
# (an artefact not built here).
#   check_versions.sh BUILD_DIR VEXAHOST      (CTest: version_agreement)
set -uo pipefail
build=$1
vexahost=$2
root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
version=$(sed -n 's/^CMAKE_PROJECT_VERSION:STATIC=//p' "$build/CMakeCache.txt")
python=$(command -v /usr/bin/python3 python3 | head -n 1)
bad=0

# agree WHAT FOUND: FOUND must be the project's version.
agree() {
    if [ "$2" = "$version" ]; then
        echo "ok          $1: $2"
    else
        echo "DISAGREES   $1: '$2', the project is $version"
        bad=1
    fi
}
unchecked() { echo "not checked $1"; }

header="$build/include/vexatool.h"
macro() { sed -n "s/^#define VEXA_VERSION_$1 \"*\([^\"]*\)\"*\$/\1/p" "$header"; }
agree "vexatool.h VEXA_VERSION_MAJOR.MINOR.PATCH" "$(macro MAJOR).$(macro MINOR).$(macro PATCH)"
agree "vexatool.h VEXA_VERSION_STRING" "$(macro STRING)"
agree "vexatool.pc" "$(sed -n 's/^Version: //p' "$build/vexatool.pc")"
agree "vexatoolConfigVersion.cmake" \
    "$(sed -n 's/^set(PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/vexatoolConfigVersion.cmake")"
agree "Debian packages (CPack)" \
    "$(sed -n 's/^set(CPACK_PACKAGE_VERSION "\(.*\)")$/\1/p' "$build/CPackConfig.cmake")"
agree "vexahost --version" "$("$vexahost" --version | sed -n 's/^vexahost //p')"
agree "CHANGELOG.md, newest entry" "$(sed -n 's/^## \[\(.*\)\].*/\1/p' "$root/CHANGELOG.md" | head -n 1)"
for aar in $(grep -o 'vexatool-[0-9][0-9.]*[0-9]\.aar' "$root/README.md" | sort -u); do
    agree "README.md's $aar" "$(echo "$aar" | sed 's/^vexatool-\(.*\)\.aar$/\1/')"
done

if [ -f "$build/docs/man/vexatool.7" ]; then
    for page in "$build"/docs/man/*.[137]; do
        grep -q '^\.TH' "$page" || continue  # a .so link
        agree "man page $(basename "$page")" "$(sed -n 's/^\.TH .*"vexatool \([0-9][^"]*\)".*/\1/p' "$page")"
    done
else
    unchecked "the manual pages: not built (no scdoc when the build was configured)"
fi

aar=$(ls -t "$root"/build-aar/vexatool-*.aar 2>/dev/null | head -n 1)
if [ -n "$aar" ]; then
    agree "the newest AAR's name ($aar)" "$(basename "$aar" .aar | sed 's/^vexatool-//')"
else
    unchecked "the AAR's name: no build-aar/vexatool-*.aar (scripts/build-aar.sh makes one)"
fi

pyversion=$(cd / && PYTHONDONTWRITEBYTECODE=1 PYTHONPATH="$root/python" "$python" -c \
    'import vexawire; print(vexawire.__version__)' 2>/dev/null)
if [ -n "$pyversion" ]; then
    agree "vexawire.__version__" "$pyversion"
else
    unchecked "vexawire.__version__: the package in python/ has none"
fi
pyproject=$(sed -n 's/^version *= *"\(.*\)"$/\1/p' "$root/python/pyproject.toml")
if [ -n "$pyproject" ]; then
    agree "python/pyproject.toml" "$pyproject"
else
    unchecked "python/pyproject.toml: no fixed version (derived when built)"
fi
zipapp=$(find "$build" -maxdepth 3 -type f \( -name vexawire -o -name 'vexawire*.pyz' \) | head -n 1)
if [ -n "$zipapp" ]; then
    agree "vexawire --version ($zipapp)" "$("$python" "$zipapp" --version | sed -n 's/^vexawire //p')"
else
    unchecked "vexawire --version: no zipapp vexawire or vexawire*.pyz in $build"
fi
exit "$bad"
