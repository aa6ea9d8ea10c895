#!/usr/bin/env bash
# Makes what the simulated cabinet needs: Debian packages, the loader (build/product, build/product-i586), the
# kernel (build/machine/kernel-TARGET, a link to its folder), for i586 the 32-bit Debian programs that run inside
# (build/machine/i386), and the tools. Quick when all is there; a kernel takes some minutes, once, and none if
# QEL_KERNEL_CACHE names a folder with one that machine/kernel/build.sh has built.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

usage="usage: machine/set_up.sh --packages                     only the packages
       machine/set_up.sh [TARGET...]                    everything but the tools, for x86-64 (default) or i586
       machine/set_up.sh --tool NAME [WORD...]          the tool as well (build/tools/NAME)"

targets=() only_packages=0 tool=
while [ $# -gt 0 ]; do
    case "$1" in
    --packages) only_packages=1 ;;
    --tool) tool=${2:-}; shift ;;
    x86-64 | i586) targets+=("$1") ;;
    --help) echo "$usage"; exit 0 ;;
    *) echo "error: neither a target nor an option: $1" >&2; echo "$usage" >&2; exit 2 ;;
    esac
    shift
done
[ $only_packages -eq 1 ] || [ ${#targets[@]} -gt 0 ] || targets=(x86-64)

# build PRESET [OPTION...]: quiet, but for the end of a log that tells of a failure.
build() {
    local preset=$1 log=build/machine/$1.log
    shift
    if ! { cmake --preset "$preset" && cmake --build --preset "$preset" "$@"; } >"$log" 2>&1; then
        tail -n 40 "$log" >&2
        echo "error: $preset does not build; the whole log is $log" >&2
        exit 1
    fi
}

make_loader() {
    if [ "$1" = x86-64 ]; then
        build product
    else
        tools/i586_sysroot.sh
        tools/i386_packages.sh build/machine/i386 "${i386_programs[@]}"
        build product-i586
    fi
}

mkdir -p build/machine
# Compiling a kernel takes longest: it begins as soon as its own packages are there.
if [ ${#targets[@]} -gt 0 ]; then
    [ -n "${QEL_KERNEL_CACHE:-}" ] || need_packages build kernel
    set -m
    machine/kernel/build.sh "${targets[@]}" >build/machine/kernels &
    kernels=$!
    set +m
    trap 'kill -- -$kernels 2>/dev/null || true' EXIT
fi

need_packages build product tools cabinet
for target in "${targets[@]}"; do
    make_loader "$target"
done
if [ -n "$tool" ]; then
    [ -e "build/tools/$tool" ] || echo "building ${tool#*/} (once, a minute or two) ..."
    build tools --target "${tool#*/}"
fi

[ ${#targets[@]} -gt 0 ] || exit 0
wait "$kernels" || exit 1
trap - EXIT
mapfile -t folders <build/machine/kernels
for i in "${!targets[@]}"; do
    ln -sfn "${folders[i]}" "build/machine/kernel-${targets[i]}"
done
