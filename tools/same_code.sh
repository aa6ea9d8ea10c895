#!/usr/bin/env bash
# Compares the product's objects with those of the preset product-tables. See tools/same_code.sh --help.
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = --help ]; then
    cat <<'EOF'
usage: tools/same_code.sh

Compares every object of build/product with that of build/product-tables, which has unwind tables and is built
without NDEBUG: but for those tables and debugging information they must be the same bytes. So NDEBUG changes
nothing, and what tests run by way of product-tables is the product.

Exit code: 0 when they are the same, 1 when not.
EOF
    exit
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
count=0
while read -r object; do
    for preset in product product-tables; do
        objcopy --strip-debug -R .eh_frame -R .rela.eh_frame "build/$preset/src/$object" "$work/$preset" ||
            { echo "error: cmake --preset $preset && cmake --build --preset $preset make it" >&2; exit 1; }
    done
    cmp "$work/product" "$work/product-tables" ||
        { echo "error: $object is not the same with NDEBUG as without; see objdump -d" >&2; exit 1; }
    count=$((count + 1))
done < <(cd build/product/src && find . -name '*.o')
[ "$count" -gt 20 ] || { echo "error: build/product has only $count objects" >&2; exit 1; }
echo "product: $count objects are the same with and without NDEBUG and unwind tables"
