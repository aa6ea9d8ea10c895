#!/usr/bin/env bash
# Fuzzes for longer than ./check does. See --help.
set -euo pipefail
cd "$(dirname "$0")/../.."
. tools/packages.sh

usage() {
    cat <<'END'
usage: tests/fuzz/run.sh [OPTION] [TARGET...]

Builds the fuzz targets and runs them, all by default, from their corpora and from what earlier runs have
found (BUILD/corpus/TARGET). Each gets the same time: as one ends, a line shows its inputs executed, the edges
and features of the code that it has reached by now, and findings. The last line has the sums, and what is new
since the start. The input of a finding is kept in BUILD/findings; run the target with that file alone to see
it again.

Options:
  --seconds N      how long each target runs (60)
  --executions N   repeat that until all targets together have executed N inputs
  --jobs N         how many targets run at a time (the number of processors)
  --merge          afterwards make the committed corpus of each target, tests/fuzz/corpus/TARGET, a smallest
                   set of inputs that reaches every edge found, about as often as found; inputs made by hand,
                   tests/fuzz/corpus/TARGET/by_hand_*, stay, because reaching an edge is not what they are for
  --build DIR      where to build (build/fuzz)
  --list           list the targets
  --help           this text

Exit code: 0 without a finding, 1 with one, 2 for a wrong call.
END
}

sources=tests/fuzz
all_targets() { sed -n 's/^fuzz_target(\([a-z_]*\).*/\1/p' $sources/CMakeLists.txt; }
wrong_call() { echo "error: $1; see --help" >&2; exit 2; }

seconds=60 executions=1 jobs=$(nproc) merge=0 build=build/fuzz targets=()
while [ $# -gt 0 ]; do
    case "$1" in
        --help) usage; exit 0 ;;
        --list) all_targets; exit 0 ;;
        --merge) merge=1 ;;
        --build)
            [ $# -ge 2 ] || wrong_call "--build wants a folder"
            build=$2
            shift ;;
        --seconds|--executions|--jobs)
            [[ ${2:-} =~ ^[1-9][0-9]*$ ]] || wrong_call "$1 wants a number from 1 on, not '${2:-}'"
            declare "${1#--}=$2"
            shift ;;
        *)  all_targets | grep -qx -- "$1" || wrong_call "unknown target or option: $1"
            targets+=("$1") ;;
    esac
    shift
done
[ ${#targets[@]} -gt 0 ] || mapfile -t targets < <(all_targets)

need_packages build clang tools gtest
mkdir -p "$build/findings"
echo "building ..."
if ! { cmake --preset fuzz -B "$build" && cmake --build "$build" --target fuzz -j "$(nproc)"; } \
        >"$build/build.log" 2>&1; then
    tail -n 40 "$build/build.log" >&2
    exit 1
fi

# counters LINE LOG: edges and features in the first ("INITED") or last ("") such line of libFuzzer's log.
counters() { sed -n "s/.*$1 *cov: \([0-9]*\) ft: \([0-9]*\).*/\1 \2/p" "$2" | tail -n 1 | grep . || echo 0 0; }

# Runs one target, prints its line and adds one to the results. Returns 1 when there was a finding.
fuzz() {
    local name=$1 target=$build/tests/fuzz/fuzz_$1 corpus=$build/corpus/$1 log=$build/findings/$1.log found=none
    local executed edges features
    mkdir -p "$corpus" "$sources/corpus/$name"
    "$target" -max_total_time="$seconds" -timeout=10 -reload=0 -print_final_stats=1 \
        -artifact_prefix="$build/findings/$name-" "$corpus" "$sources/corpus/$name" >"$log" 2>&1 </dev/null ||
        found=$(sed -n 's/.*Test unit written to //p' "$log" | tail -n 1)
    [ -n "$found" ] || found="see $log"
    executed=$(sed -n 's/^stat::number_of_executed_units: //p' "$log")
    read -r edges features < <(counters '' "$log")
    echo "$name ${executed:-0} $(counters INITED "$log") $edges $features $found" >>"$results"
    printf '%-14s %10s executed %6s edges %6s features   findings: %s\n' \
        "$name" "${executed:-0}" "$edges" "$features" "$found"
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

# Results are lines: target, executions, edges and features at the start and at the end, finding.
results=$build/findings/results status=0 sum=0
: >"$results"
export -f fuzz counters
export seconds build sources results
while [ "$sum" -lt "$executions" ]; do
    before=$sum
    printf '%s\n' "${targets[@]}" | xargs -P "$jobs" -I{} bash -c 'fuzz {}' || status=1
    read -r sum line < <(awk '
        { sum += $2; found += $7 != "none" }
        $3 > 0 && !($1 in first) { first[$1] = 1; new_edges -= $3; new_features -= $4 }
        $5 > edges[$1] { edges[$1] = $5 }
        $6 > features[$1] { features[$1] = $6 }
        END {
            for (name in first) {
                new_edges += edges[name]
                new_features += features[name]
            }
            printf "%d executed, %d new edges, %d new features, %d findings\n", sum, new_edges, new_features, found
        }' "$results")
    echo "after $SECONDS s: $sum $line"
    [ "$sum" -gt "$before" ] || { echo "error: nothing runs; see $build/findings/*.log" >&2; exit 1; }
done
if [ $merge -eq 1 ]; then
    for name in "${targets[@]}"; do
        merge "$name"
    done
fi
exit $status
