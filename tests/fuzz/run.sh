#!/usr/bin/env bash
# Fuzzes for longer than ./check does. See --help.
set -euo pipefail
cd "$(dirname "$0")/../.."
. tools/packages.sh

usage() {
    cat <<'END'
usage: tests/fuzz/run.sh [OPTION] [TARGET...]

Builds the fuzz targets and runs each in turn, all of them by default, from its corpus and from what earlier
runs have found (BUILD/corpus/TARGET). Prints a line for each: inputs executed, edges and features of the
code that were reached, findings. The input of a finding is kept in BUILD/findings; run the target with
that file alone to see it again.

Options:
  --seconds N   how long each target runs (60)
  --merge       afterwards make the committed corpus of each target, tests/fuzz/corpus/TARGET, a smallest
                set of inputs that reaches every edge found, about as often as found; inputs made by hand,
                tests/fuzz/corpus/TARGET/by_hand_*, stay, because reaching an edge is not what they are for
  --build DIR   where to build (build/fuzz)
  --list        list the targets
  --help        this text

Exit code: 0 without a finding, 1 with one, 2 for a wrong call.
END
}

sources=tests/fuzz
all_targets() { sed -n 's/^fuzz_target(\([a-z_]*\).*/\1/p' $sources/CMakeLists.txt; }

seconds=60 merge=0 build=build/fuzz targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --help) usage; exit 0 ;;
        --list) all_targets; exit 0 ;;
        --merge) merge=1 ;;
        --seconds|--build)
            [ $# -ge 2 ] || { usage >&2; exit 2; }
            if [ "$1" = --build ]; then build=$2; else seconds=$2; fi
            shift ;;
        *)  all_targets | grep -qx -- "$1" || {
                echo "error: unknown target or option: $1 (--list and --help tell what there is)" >&2; exit 2; }
            targets+=("$1") ;;
    esac
    shift
done
[[ $seconds =~ ^[1-9][0-9]*$ ]] || { echo "error: --seconds wants a number from 1 on, not $seconds" >&2; exit 2; }
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(all_targets)

need_packages build clang tools gtest
mkdir -p "$build/findings"
echo "building ..."
if ! { cmake --preset fuzz -B "$build" && cmake --build "$build" --target fuzz -j "$(nproc)"; } \
        >"$build/build.log" 2>&1; then
    tail -n 40 "$build/build.log" >&2
    exit 1
fi

# The last value of a counter in libFuzzer's log: "cov: 531" is the last one of cov.
counter() { sed -n "s/.*$2: \([0-9]*\).*/\1/p" "$1" | tail -n 1; }

# Runs one target and prints its line. Returns 1 when there was a finding.
fuzz() {
    local name=$1 target=$build/tests/fuzz/fuzz_$1 corpus=$build/corpus/$1 log=$build/findings/$1.log found=none
    mkdir -p "$corpus" $sources/corpus/"$name"
    "$target" -max_total_time="$seconds" -max_len=4096 -timeout=10 -print_final_stats=1 \
        -artifact_prefix="$build/findings/$name-" "$corpus" $sources/corpus/"$name" >"$log" 2>&1 ||
        found=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    [ -n "$found" ] || found="see $log"
    printf '%-14s %10s executed %6s edges %6s features   findings: %s\n' "$name" \
        "$(counter "$log" stat::number_of_executed_units)" "$(counter "$log" cov)" "$(counter "$log" ft)" "$found"
    [ "$found" = none ]
}

# Replaces the committed corpus of one target.
merge() {
    local name=$1 target=$build/tests/fuzz/fuzz_$1 merged=$build/merged/$1
    rm -rf "$merged"
    mkdir -p "$merged"
    "$target" -set_cover_merge=1 "$merged" "$build/corpus/$name" $sources/corpus/"$name" \
        >"$build/merged/$name.log" 2>&1
    find $sources/corpus/"$name" -name 'by_hand_*' -exec cp -t "$merged" {} +
    rm -rf $sources/corpus/"$name"
    cp -r "$merged" $sources/corpus/"$name"
    echo "$name: $(find $sources/corpus/"$name" -type f | wc -l) inputs"
}

status=0
for name in "${targets[@]}"; do
    fuzz "$name" || status=1
done
if [ $merge -eq 1 ]; then
    for name in "${targets[@]}"; do
        merge "$name"
    done
fi
exit $status
