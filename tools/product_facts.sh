#!/usr/bin/env bash
# Checks what the product's binary must be: static, without the C++ library, hardened, small, and for i586
# without instructions that its processors lack. Takes the presets to look at, "product" when there are none.
set -euo pipefail
cd "$(dirname "$0")/.."

size_max=$((96 * 1024))

fail() { echo "error: $*" >&2; exit 1; }

# Puts the program's own instructions through an assembler that knows those of an i586 only. Where a jump goes
# is no matter, and %eiz (no register) cannot be assembled.
only_i586_instructions() {
    objdump -d --no-show-raw-insn --no-addresses "$1" |
        sed -nE 's/^\t//; T; s/<.*//; s/,%eiz,[1248]//; s/^(call|j[a-z]+) *$/\1 0/; p' |
        { echo .arch i586; cat; } | as --32 -o /dev/null
}

for preset in "${@:-product}"; do
    unstripped=build/$preset/src/qel_application_loader
    stripped=$unstripped.stripped
    file "$stripped" | grep -q 'statically linked' || fail "$stripped is not statically linked"
    if nm --defined-only "$unstripped" | c++filt | grep -E ' (std::|__cxa_|_Unwind_|operator (new|delete))'; then
        fail "$preset holds parts of the C++ run-time library"
    fi
    readelf -lW "$stripped" | grep 'GNU_STACK.* RW ' >/dev/null || fail "the stack of $preset is executable"
    ! readelf -lW "$stripped" | grep ' RWE ' || fail "$preset has memory that is writable and executable"
    objdump -d "$unstripped" | grep 'call.*<__stack_chk_fail' >/dev/null || fail "$preset has no stack protector"
    if [[ $preset = *i586 ]]; then
        file "$stripped" | grep -q 'ELF 32-bit' || fail "$stripped is no 32-bit program"
        only_i586_instructions "$unstripped" || fail "$preset holds instructions of later processors"
    fi
    size=$(stat -c %s "$stripped")
    echo "$preset: qel_application_loader.stripped: $size bytes (limit $size_max)"
    [ "$size" -le "$size_max" ] || fail "$preset is too large; see what grew: nm --size-sort -S $unstripped"
done
