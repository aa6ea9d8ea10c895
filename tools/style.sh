#!/usr/bin/env bash
# Style and compiler checks. See tools/style.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

if [ $# -gt 0 ]; then
    echo "usage: tools/style.sh"
    echo "Checks all sources: clang-format, shellcheck, pyflakes3, warnings of clang++ as errors, and clang-tidy"
    echo "for all but the tests. What has not changed since the last time (build/clang) is not looked at again."
    [ "$*" = --help ] && exit 0 || exit 2
fi

need_packages clang clang-format clang-tidy cmake ninja-build python3 pyflakes3 shellcheck libgtest-dev libgmock-dev \
    libcli11-dev nlohmann-json3-dev libpng-dev libx11-dev libncurses-dev libfreetype-dev libbenchmark-dev libboost-dev

mapfile -t sources < <(git ls-files '*.cpp' '*.h')
echo "clang-format: ${#sources[@]} files"
clang-format --dry-run --Werror "${sources[@]}"

# Scripts are known by their first line.
scripts_of() { git grep -lE -m 1 "^#!.*\b($1)\$"; }
mapfile -t scripts < <(scripts_of 'sh|bash')
echo "shellcheck: ${#scripts[@]} scripts"
shellcheck "${scripts[@]}" tools/packages.sh

mapfile -t scripts < <(scripts_of python3; git ls-files '*.py')
mapfile -t scripts < <(printf '%s\n' "${scripts[@]}" | sort -u)
echo "pyflakes3: ${#scripts[@]} scripts"
pyflakes3 "${scripts[@]}"

# All parts in one build folder, of which only the commands are used.
echo "clang-tidy: the product and all tools; clang++: the tests, warnings as errors"
mkdir -p build
if ! { cmake -S . -B build/clang -G Ninja -DCMAKE_CXX_COMPILER=clang++ "-DQEL_BENCHMARKS=subjects;driver" \
             -DQEL_SANITIZE= -DQEL_TESTS=ON -DCMAKE_CXX_COMPILER_LAUNCHER= &&
       tools/style_steps.py build/clang; } >build/clang.log 2>&1; then
    tail -n 60 build/clang.log >&2
    echo "error: the style checks cannot be set up; the whole log is build/clang.log" >&2
    exit 1
fi
quiet=(--quiet)
[ ! -t 1 ] || quiet=()
ninja -f build/clang/style.ninja -k 0 "${quiet[@]}"
