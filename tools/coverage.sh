#!/usr/bin/env bash
# Line and branch coverage of src/ by the unit tests. See tools/coverage.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

usage() {
    cat <<'EOF'
usage: tools/coverage.sh [--build FOLDER] [--no-run]

Builds the preset coverage, runs the unit tests, and prints the coverage of every file of src/ and of all.
Fails when a line or a branch is uncovered that tools/coverage_exceptions.txt does not name, and when that
file names one that is covered.

  --build FOLDER   build there instead of in build/coverage
  --no-run         judge what the last run left
EOF
}

build=build/coverage run=1
while [ $# -gt 0 ]; do
    case "$1" in
        --help) usage; exit 0 ;;
        --no-run) run=0 ;;
        --build) [ $# -ge 2 ] || { usage >&2; exit 2; }
            build=$2; shift ;;
        *) echo "error: unknown argument: $1 (tools/coverage.sh --help lists them)" >&2; exit 2 ;;
    esac
    shift
done

need_packages clang libclang-rt-14-dev llvm cmake ninja-build libgtest-dev libgmock-dev python3

if [ $run -eq 1 ]; then
    echo "building the unit tests with clang ..."
    mkdir -p build
    if ! { cmake --preset coverage -B "$build" && ninja -C "$build" unit_tests; } >build/coverage.log 2>&1; then
        tail -n 60 build/coverage.log >&2
        echo "error: the unit tests do not build with clang; the whole log is build/coverage.log" >&2
        exit 1
    fi
    echo "running them ..."
    rm -rf "$build/profiles"
    # Tests start others of their program: all add to one file.
    LLVM_PROFILE_FILE="$PWD/$build/profiles/%m.profraw" \
        "$build/tests/unit_tests" --gtest_brief=1 >"$build/unit_tests.log" 2>&1 || {
            tail -n 60 "$build/unit_tests.log" >&2
            echo "error: the tests fail; make ./check unit pass first" >&2
            exit 1
        }
    llvm-profdata merge -sparse "$build"/profiles/*.profraw -o "$build/unit_tests.profdata"
fi

[ -e "$build/unit_tests.profdata" ] || {
    echo "error: no run has left anything in $build; run tools/coverage.sh without --no-run" >&2
    exit 1
}
mapfile -t sources < <(git ls-files 'src/*.cpp' 'src/*.h')
llvm-cov export "$build/tests/unit_tests" -instr-profile="$build/unit_tests.profdata" "${sources[@]}" \
    >"$build/coverage.json"
python3 tools/coverage_report.py "$build/coverage.json"
