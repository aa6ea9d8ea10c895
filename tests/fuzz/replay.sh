#!/usr/bin/env bash
# Replays a corpus: replay.sh TARGET CORPUS. Fails on a finding, and when there is nothing to replay.
set -euo pipefail

if [ "${1:-}" = --help ] || [ $# -ne 2 ]; then
    echo "usage: replay.sh TARGET CORPUS    run every input of the folder CORPUS once through TARGET"
    [ "${1:-}" = --help ] && exit 0 || exit 2
fi
target=$1 corpus=$2

shopt -s nullglob
inputs=("$corpus"/*)
if [ ${#inputs[@]} -eq 0 ]; then
    echo "error: no inputs in $corpus; make some with tests/fuzz/run.sh --merge" >&2
    exit 1
fi
exec "$target" "${inputs[@]}"
