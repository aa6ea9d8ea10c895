#!/usr/bin/env bash
# Style and compiler checks. See tools/style.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

if [ $# -gt 0 ]; then
    echo "usage: tools/style.sh"
    echo "Checks all sources: clang-format, shellcheck, pyflakes3, codespell, and clang-tidy with the warnings of"
    echo "clang++ for all but the tests. clang-tidy looks again only at what has changed (build/style)."
    [ "$*" = --help ] && exit 0 || exit 2
fi

need_packages build tools style

# Runs a checker over the files that standard input names, on all processors.
check() {
    local files
    mapfile -t files
    echo "$1: ${#files[@]} files"
    printf '%s\0' "${files[@]}" | xargs -0 -n 40 -P "$(nproc)" "$@"
}
# Files that git knows and that exist; scripts by their first line.
files() { git ls-files --deduplicate "$@" | while read -r name; do [ ! -f "$name" ] || echo "$name"; done; }
scripts() { git grep -lE -m 1 "^#!.*\b($1)\$"; }

failed=0
files '*.cpp' '*.h' | check clang-format --dry-run --Werror || failed=1
{ scripts 'sh|bash'; echo tools/packages.sh; } | check shellcheck || failed=1
{ scripts python3; files '*.py'; } | sort -u | check pyflakes3 || failed=1
files | check codespell || failed=1

echo "clang-tidy: the product, the tools, the benchmarks and the examples"
mkdir -p build
cmake --preset style >build/style.log 2>&1 || {
    tail -n 60 build/style.log >&2
    echo "error: the preset style cannot be configured; the whole log is build/style.log" >&2
    exit 1
}
export NINJA_STATUS='[%f/%t] '
quiet=(--quiet)
[ ! -t 1 ] || quiet=()
# What clang-tidy says besides its findings is a number of warnings in the headers of others.
ninja -C build/style -k 0 "${quiet[@]}" \
    > >(grep -vE '^([0-9]+ warnings? generated|Suppressed [0-9]+|ninja: )' || true) || failed=1
wait
exit $failed
