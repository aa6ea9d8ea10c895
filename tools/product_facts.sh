#!/usr/bin/env bash
# Checks what the product's binary must be: static, without the C++ library, small, and for i586 without
# instructions that its processors lack. Takes the presets to look at, "product" when there are none.
set -euo pipefail
cd "$(dirname "$0")/.."

size_max=$((96 * 1024))

fail() { echo "error: $*" >&2; exit 1; }

# Conditional moves, long no-operations, branch marks, and everything with vector registers.
later_than_i586='\s(f?cmov\w+|nop[wl]|endbr(32|64)|f?u?comip?i|sysenter|[lms]fence|prefetch\w*|rdtscp)\b|%[xyz]?mm[0-9]'

for preset in "${@:-product}"; do
    unstripped=build/$preset/src/qel_application_loader
    stripped=$unstripped.stripped
    file "$stripped" | grep -q 'statically linked' || fail "$stripped is not statically linked"
    if nm --defined-only "$unstripped" | c++filt | grep -E ' (std::|__cxa_|_Unwind_|operator (new|delete))'; then
        fail "$preset holds parts of the C++ run-time library"
    fi
    if [[ $preset = *i586 ]] && objdump -d --no-show-raw-insn "$unstripped" | grep -P "$later_than_i586"; then
        fail "$preset holds instructions of later processors"
    fi
    size=$(stat -c %s "$stripped")
    echo "$preset: qel_application_loader.stripped: $size bytes (limit $size_max)"
    [ "$size" -le "$size_max" ] || fail "$preset is too large; see what grew: nm --size-sort -S $unstripped"
done
