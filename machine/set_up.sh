#!/usr/bin/env bash
# Makes what the simulated cabinet needs before its tools are built: Debian packages, the loader
# (build/product, build/product-i586) and the kernel (build/machine/kernel, a link to its folder). Quick when all
# is there; the kernel takes about 5 minutes on 2 cores, once, and none if QEL_KERNEL_CACHE names a folder with one
# that machine/kernel/build.sh has built.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

usage="usage: machine/set_up.sh --packages       only the packages
       machine/set_up.sh [TARGET...]      everything, with the loader for x86-64 (default) or i586"

[ $# -gt 0 ] || set -- x86-64
presets=()
for word in "$@"; do
    case "$word" in
    --packages) ;;
    x86-64) presets+=(product) ;;
    i586) presets+=(product-i586) ;;
    --help) echo "$usage"; exit 0 ;;
    *) echo "error: neither a target nor an option: $word" >&2; echo "$usage" >&2; exit 2 ;;
    esac
done

need_packages build product tools cabinet
[ ${#presets[@]} -gt 0 ] || exit 0

mkdir -p build/machine
for preset in "${presets[@]}"; do
    [ "$preset" = product ] || tools/i586_sysroot.sh
    log=build/machine/$preset.log
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset"; } >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        echo "error: the loader does not build; the whole log is $log" >&2
        exit 1
    fi
done

kernel=${QEL_KERNEL_CACHE:-}
[ -n "$kernel" ] || kernel=$(machine/kernel/build.sh)
ln -sfn "$kernel" build/machine/kernel
