#!/bin/sh
# Prints "NAME VERSION (COMMIT)", as the programs do, for scripts: tools/version.sh NAME.
cd "$(dirname "$0")/.." || exit 1
[ $# -eq 1 ] || { echo "usage: tools/version.sh NAME" >&2; exit 2; }
commit=$([ ! -e .git ] || git describe --always --dirty --abbrev=10 --exclude='*' 2>/dev/null)
echo "$1 $(cat VERSION)${commit:+ ($commit)}"
