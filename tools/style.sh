#!/usr/bin/env bash
# Style and compiler checks. See tools/style.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ $# -gt 0 ]; then
    echo "usage: tools/style.sh"
    echo "Checks all sources: clang-format, warnings of clang++ as errors, and for src/ clang-tidy."
    [ "$*" = --help ] && exit 0 || exit 2
fi

mapfile -t sources < <(git ls-files '*.cpp' '*.h')

echo "clang-format: ${#sources[@]} files"
clang-format --dry-run --Werror "${sources[@]}"

echo "clang++: the product and all tools, warnings as errors"
mkdir -p build
if ! { cmake -S . -B build/clang -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DQEL_TESTS=OFF &&
       cmake --build build/clang -j "$(nproc)"; } >build/clang.log 2>&1; then
    tail -n 60 build/clang.log >&2
    exit 1
fi

# Only the product is held to clang-tidy in every run; it takes long, and tests are not shipped.
mapfile -t product < <(git ls-files 'src/*.cpp')
echo "clang-tidy: ${#product[@]} files"
printf '%s\n' "${product[@]}" |
    xargs -P "$(nproc)" -n 4 clang-tidy -p build/clang --quiet 2>build/clang-tidy.log
