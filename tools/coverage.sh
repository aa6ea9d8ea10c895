#!/usr/bin/env bash
# Judges what the last run of the unit tests (./check unit) has covered of src/.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 0 ]; then
    echo "usage: tools/coverage.sh"
    echo "Fails, with a list, when the unit tests have not run a line of src/ or not taken a branch both ways."
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
awk -F '[:,]' -v root="$PWD/" '
    /^SF:/ { file = substr($2, length(root) + 1) }
    /^DA:/ { lines++; if ($3 == 0) { missed++; print "error: " file ":" $2 ": never runs" } }
    /^BRDA:/ { branches++; if ($5 + 0 == 0) { missed++; print "error: " file ":" $2 ": a branch is never taken" } }
    END { printf "coverage of src/: %d lines, %d branches, %d missed\n", lines, branches, missed
          exit missed > 0 || lines == 0 || branches == 0 }' "$build/coverage.lcov"
