#!/usr/bin/env bash
# Puts the 32-bit musl (headers, libc.a, start files) into build/i586-sysroot for the preset product-i586: its
# package cannot be installed alongside the 64-bit one. Quick when it is all there; needs no root but for
# installing g++-multilib.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

if [ $# -gt 0 ]; then
    echo "usage: tools/i586_sysroot.sh"
    echo "Makes build/i586-sysroot for the presets product-i586 and test-i586."
    [ "$*" = --help ] && exit 0 || exit 2
fi

need_packages i586
tools/i386_packages.sh build/i586-sysroot musl-dev
