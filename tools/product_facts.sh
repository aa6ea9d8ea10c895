#!/usr/bin/env bash
# Checks what the product's binary must be: static, without the C++ library, and small.
set -euo pipefail
cd "$(dirname "$0")/.."

size_max=$((96 * 1024))
unstripped=build/product/src/qel_application_loader
stripped=$unstripped.stripped

fail() { echo "error: $*" >&2; exit 1; }

file "$stripped" | grep -q 'statically linked' || fail "$stripped is not statically linked"
if nm --defined-only "$unstripped" | c++filt | grep -E ' (std::|__cxa_|_Unwind_|operator (new|delete))'; then
    fail "the product holds parts of the C++ run-time library"
fi
size=$(stat -c %s "$stripped")
echo "qel_application_loader.stripped: $size bytes (limit $size_max)"
[ "$size" -le "$size_max" ] || fail "the product is too large; see what grew: nm --size-sort -S $unstripped"
