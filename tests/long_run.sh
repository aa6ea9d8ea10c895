#!/usr/bin/env bash
# The tests that can run for longer than ./check lets them. See --help.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

usage() {
    cat <<'END'
usage: tests/long_run.sh [OPTION] WHAT [NUMBER]

Builds what is needed and runs one test for long. What happens is printed as it comes; the figures or the table
of outcomes come at the end.

WHAT, and the usual NUMBER:
  install-cuts 60          cuts the power so often during an install of the simulated cabinet. Each disk is
                           started by itself, then installed again, checked, and started
  copy-cuts 60             the same while a newer application is copied from a stick. Each disk is started by
                           itself, with the same stick, and with a stick that has a still greater name
  boots 50                 starts the simulated cabinet so often, while six busy loops run
  restarts 500             restarts of an application in the simulated cabinet
  sandbox-restarts 10000   the same in namespaces on this kernel (needs root)
  link 100000              exchanges over a lossy host link, with three seeds

Options:
  --seed N      where chance begins, for the cuts (1)
  --build DIR   where to build (build/test)
  --help        this text

With QEL_TEST_TARGET=i586 in the environment, the cabinet is the 32-bit one. A cut takes about 10 seconds on an
idle computer. Exit code: 0 when all was as it must be, 1 otherwise, 2 for a wrong call.
END
}

refuse() {
    echo "error: $* (see tests/long_run.sh --help)" >&2
    exit 2
}

build=build/test seed=1 words=() repeat=1 busy_loops=0
while [ $# -gt 0 ]; do
    case "$1" in
        --help) usage; exit 0 ;;
        --seed|--build)
            [ $# -ge 2 ] || refuse "$1 wants a value"
            if [ "$1" = --build ]; then build=$2; else seed=$2; fi
            shift ;;
        -*) refuse "unknown option: $1" ;;
        *) words+=("$1") ;;
    esac
    shift
done
[ ${#words[@]} -eq 1 ] || [ ${#words[@]} -eq 2 ] || refuse "name one thing to run"
number=${words[1]:-}
[[ $number =~ ^([1-9][0-9]*)?$ && $seed =~ ^[1-9][0-9]*$ ]] || refuse "a number is wanted, not: $number $seed"

case "${words[0]}" in
install-cuts)
    program=machine/machine_tests filter='PowerCut.DuringAnInstall*' settings=(QEL_INSTALL_CUTS="${number:-60}") ;;
copy-cuts)
    program=machine/machine_tests filter='PowerCut.WhileAnApplication*' settings=(QEL_COPY_CUTS="${number:-60}") ;;
boots)
    program=machine/machine_tests filter='NormalBoot.PrintsTheStartUpSequence' settings=()
    repeat=${number:-50} busy_loops=6 ;;
restarts)
    program=machine/machine_tests filter='CabinetEndurance.ManyRestarts*'
    settings=(QEL_MACHINE_RESTARTS="${number:-500}") ;;
sandbox-restarts)
    program=sandbox/sandbox_tests filter='ManyRestarts.*' settings=(QEL_SANDBOX_RESTARTS="${number:-10000}") ;;
link)
    program=unit_tests filter='Seeds/BadLine.*'
    settings=(QEL_LINK_EXCHANGES="${number:-100000}") ;;
*) refuse "unknown: ${words[0]}" ;;
esac

need_packages build tools gtest
[ $program != machine/machine_tests ] || machine/set_up.sh "${QEL_TEST_TARGET:-x86-64}"
mkdir -p "$build"
echo "building $program ..."
if ! { cmake --preset test -B "$build" && cmake --build "$build" --target "${program#*/}"; } >"$build.log" 2>&1; then
    tail -n 60 "$build.log" >&2
    echo "error: the tests do not build; the whole log is $build.log" >&2
    exit 1
fi
if [ -z "$("$build/tests/$program" --gtest_list_tests --gtest_filter="$filter")" ]; then
    echo "error: $program has no test named $filter" >&2
    exit 1
fi
for ((i = 0; i < busy_loops; i++)); do
    yes >/dev/null &
done
[ $busy_loops -eq 0 ] || trap 'kill $(jobs -p)' EXIT
[[ ${words[0]} != *-cuts ]] || echo "seed $seed"
env QEL_POWER_SEED="$seed" "${settings[@]}" \
    "$build/tests/$program" --gtest_filter="$filter" --gtest_repeat="$repeat"
