#!/usr/bin/env bash
# Checks what the product's binary must be. See tools/product_facts.sh --help.
set -euo pipefail

usage() {
    cat <<'EOF'
usage: tools/product_facts.sh [PRESET...]
       tools/product_facts.sh --i586 FILE...

Checks what the loader that a preset has built ("product" when none is named) must be: static, without the
C++ library, hardened, small, and for i586 without instructions that its processors lack.

  --i586    check the instructions alone, of any programs

Exit code: 0 when all is well, 1 when not, 2 for a wrong call.
EOF
}

size_max=$((96 * 1024))

fail() { echo "error: $*" >&2; exit 1; }

# Puts the program's own instructions through an assembler that knows those of an i586 only. Where a jump goes
# does not matter, and %eiz (no register) cannot be assembled.
require_i586_instructions() {
    local listing instructions
    file -L "$1" | grep -q 'ELF 32-bit' || fail "$1 is not a 32-bit program"
    listing=$(objdump -d --no-show-raw-insn --no-addresses "$1") || fail "objdump cannot read $1"
    instructions=$(sed -nE 's/^\t//; T; s/<.*//; s/,%eiz,[1248]//; s/^(call|j[a-z]+) *$/\1 0/; p' <<<"$listing")
    [ -n "$instructions" ] || fail "$1 holds no instructions to look at"
    as --32 -o /dev/null - <<<".arch i586"$'\n'"$instructions" || fail "$1 holds instructions of later processors"
    echo "$1: $(wc -l <<<"$instructions") instructions, none of them later than the i586"
}

require_no_cpp_library() {
    local symbols
    symbols=$(nm --defined-only --demangle "$1") || fail "nm cannot read $1"
    [ -n "$symbols" ] || fail "$1 has no symbols to look at"
    ! grep -E ' (std::|__cxa_|_Unwind_|operator (new|delete))' <<<"$symbols" ||
        fail "$1 holds parts of the C++ run-time library"
}

require_hardening() {
    local headers listing
    headers=$(readelf -lW "$1.stripped") || fail "readelf cannot read $1.stripped"
    grep -q 'GNU_STACK.* RW ' <<<"$headers" || fail "the stack of $1 is executable"
    ! grep ' RWE ' <<<"$headers" || fail "$1 has memory that is writable and executable"
    listing=$(objdump -d "$1") || fail "objdump cannot read $1"
    grep -q 'call.*<__stack_chk_fail' <<<"$listing" || fail "$1 has no stack protector"
}

check_preset() {
    local unstripped=build/$1/src/qel_application_loader size
    local stripped=$unstripped.stripped
    [ -e "$stripped" ] || fail "$stripped is missing; cmake --preset $1 && cmake --build --preset $1 make it"
    file "$stripped" | grep -q 'statically linked' || fail "$stripped is not statically linked"
    require_no_cpp_library "$unstripped"
    require_hardening "$unstripped"
    [[ $1 != *i586 ]] || require_i586_instructions "$unstripped"
    size=$(stat -c %s "$stripped")
    echo "$1: qel_application_loader.stripped: $size bytes (limit $size_max)"
    [ "$size" -le "$size_max" ] || fail "$1 is too large; see what grew: nm --size-sort -S $unstripped"
}

case "${1:-product}" in
    --help) usage ;;
    --i586)
        [ $# -ge 2 ] || { usage >&2; exit 2; }
        for program in "${@:2}"; do require_i586_instructions "$program"; done ;;
    -*) echo "error: unknown argument: $1 (tools/product_facts.sh --help lists them)" >&2; exit 2 ;;
    *)
        cd "$(dirname "$0")/.."
        for preset in "${@:-product}"; do check_preset "$preset"; done ;;
esac
