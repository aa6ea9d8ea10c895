#!/usr/bin/env bash
# Builds the loader again from a copy of the sources in another folder, and compares it with the one in
# build/, byte by byte, with its debugging information and without.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = --help ]; then
    echo "usage: tools/reproducible.sh [PRESET...]"
    echo "PRESET is product (the default) or product-i586, and has been built already."
    echo "Exit code: 0 when both builds are the same, 1 when not, 2 for a wrong call."
    exit
fi
for preset in "$@"; do
    [ -e "build/$preset/src/qel_application_loader" ] ||
        { echo "error: build/$preset has no loader; name a preset that has been built (--help)" >&2; exit 2; }
done

# An object from a compiler's cache would be compared with itself.
export CCACHE_DISABLE=1
copy=$(mktemp -d)/another-name/deeper
trap 'rm -rf "${copy%/another-name/deeper}"' EXIT
mkdir -p "$copy/build"
cp -r CMakeLists.txt CMakePresets.json VERSION cmake src docs "$copy"
[ ! -e build/i586-sysroot ] || cp -r build/i586-sysroot "$copy/build"

for preset in "${@:-product}"; do
    (cd "$copy" && cmake --preset "$preset" -DCMAKE_CXX_COMPILER_LAUNCHER= &&
        cmake --build --preset "$preset") >"$copy/log" 2>&1 ||
        { tail -n 30 "$copy/log" >&2; echo "error: the copy does not build" >&2; exit 1; }
    for file in qel_application_loader qel_application_loader.stripped; do
        cmp "build/$preset/src/$file" "$copy/build/$preset/src/$file" ||
            { echo "error: $preset depends on where it is built; compare with objdump -s" >&2; exit 1; }
    done
    echo "$preset: built twice, in different folders: the same bytes"
done
