#!/usr/bin/env bash
# Installs the peers, builds what is measured and measures it, on a bare Debian 12. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."

usage() {
    cat <<'USAGE'
usage: benchmarks/run.sh [--rounds N] [--only REGEX] [--results FILE]
       benchmarks/run.sh --calls | --limits | --version

Measures the loader, its library and qel-host in turns with their best peers, in one run, writes every sample to a
file, and prints a table of medians and ratios. Needs root. Goals: docs/performance.md.

  --rounds N      how often everything is measured (21)
  --only REGEX    only what has a name that this regular expression finds
  --results FILE  the file of samples (build/bench/results.json)
  --calls         instead, print the system calls of a start-up and compare them with their list
  --limits        instead, check what is the same at every speed: size, memory, system calls
USAGE
}

# Wrong words are refused before anything is installed or built.
words=("$@") results=build/bench/results.json calls=0
while [ $# -gt 0 ]; do
    case "$1" in
    --help) usage; exit 0 ;;
    --version) exec tools/version.sh benchmarks/run.sh ;;
    --rounds | --only | --results)
        [ $# -ge 2 ] || { echo "error: $1 needs a value (benchmarks/run.sh --help)" >&2; exit 2; }
        [ "$1" != --results ] || results=$2
        shift ;;
    --calls) calls=1 ;;
    --limits) ;;
    *) echo "error: unknown argument: $1 (benchmarks/run.sh --help lists them)" >&2; exit 2 ;;
    esac
    shift
done
. tools/packages.sh

need_packages build product tools cabinet bench
tools/i586_sysroot.sh

mkdir -p build
for preset in product product-i586 bench-subjects bench tools; do
    log=build/$preset.log
    targets=()
    [ "$preset" != tools ] || targets=(--target qel-host)
    echo "building $preset ..." >&2
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "${targets[@]}"; } >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        echo "error: the preset $preset does not build; the whole log is $log" >&2
        exit 1
    fi
done
benchmarks/bench.py --results "$results" "${words[@]}"
[ $calls -eq 1 ] || exec benchmarks/report.py "$results"
