#!/usr/bin/env bash
# Judges what the last run of the unit tests (./check unit) has covered of src/.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 0 ]; then
    echo "usage: tools/coverage.sh"
    echo "Fails, with a list, when the unit tests have not run a line of src/ or not taken a branch both ways, except"
    echo "for the lines in tools/coverage_exceptions.txt, each with its reason."
    echo "The run's counters are in build/unit/profiles; ./check unit makes them."
    [ "$*" = --help ] && exit 0 || exit 2
fi

build=build/unit
mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.h')
llvm-profdata merge -sparse "$build"/profiles/*.profraw -o "$build/unit_tests.profdata"
llvm-cov export -format=lcov "$build/tests/unit_tests" -instr-profile="$build/unit_tests.profdata" \
    "${sources[@]}" >"$build/coverage.lcov"

for source in "${sources[@]}"; do
    [[ $source == *.h ]] || grep -qxF "SF:$PWD/$source" "$build/coverage.lcov" ||
        { echo "error: $source is in no unit test" >&2; exit 1; }
done
missed=$(awk -F '[:,]' -v root="$PWD/" '
    /^SF:/ { file = substr($2, length(root) + 1) }
    /^DA:/ && $3 == 0 { print file ":" $2 ": never runs" }
    /^BRDA:/ && $5 + 0 == 0 { print file ":" $2 ": a branch is never taken" }' "$build/coverage.lcov")

# An exception is a file, the text of a line and a reason; it excuses that line, and must be needed.
failed=0 excused=
while IFS=: read -r file line what; do
    [ -n "$file" ] || continue
    exception="$file | $(sed -n "${line}s/^ *//p" "$file") |"
    if grep -qF "$exception" tools/coverage_exceptions.txt; then
        excused+=$exception$'\n'
    else
        echo "error: $file:$line:$what"
        failed=1
    fi
done <<<"$missed"
while read -r exception; do
    grep -qxF "${exception% *| *} |" <<<"$excused" || { echo "error: not needed: $exception"; failed=1; }
done <tools/coverage_exceptions.txt

awk -F: '/^LF/ { lines += $2 } /^BRF/ { branches += $2 }
    END { printf "src/ has %d lines and %d branches", lines, branches }' "$build/coverage.lcov"
echo ", $(grep -c . <<<"$missed" || true) of them never run, $(wc -l <tools/coverage_exceptions.txt) excused"
exit $failed
