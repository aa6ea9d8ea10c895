#!/bin/sh
# Prints the table of places with its head: make_table.sh VERSION [LOADER...]
set -eu
version=$1
shift
ids=
for loader in "$@"; do
    id=$(LC_ALL=C readelf -n "$loader" | sed -n 's/.*Build ID: //p')
    [ -n "$id" ] || { echo "error: $loader has no build id" >&2; exit 1; }
    ids="$ids $id"
done
printf '# QEL loader\t%s\t%s\n' "$version" "${ids# }"
exec "$(dirname "$0")/../../tools/failures_table.py" --places
