#!/usr/bin/env bash
# Makes what the simulated cabinet needs before its tools are built: Debian packages, the loader
# (build/product) and the kernel (build/machine/kernel, a link into the cache). Quick when all is there;
# the kernel takes about 5 minutes on 2 cores, once. With --packages only the packages.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

need_packages g++ cmake ninja-build musl-tools libcli11-dev nlohmann-json3-dev libpng-dev libx11-dev \
    qemu-system-x86 busybox-static xvfb x11-xkb-utils xkb-data \
    syslinux extlinux mtools dosfstools fdisk minizip zip util-linux
[ "${1:-}" != --packages ] || exit 0

mkdir -p build/machine
log=build/machine/product.log
if ! { cmake --preset product && cmake --build --preset product; } >"$log" 2>&1; then
    tail -n 40 "$log" >&2
    echo "error: the loader does not build; the whole log is $log" >&2
    exit 1
fi

kernel=$(machine/kernel/build.sh)
ln -sfn "$kernel" build/machine/kernel
