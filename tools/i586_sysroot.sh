#!/usr/bin/env bash
# Puts the 32-bit musl (headers, libc.a, start files) into build/i586-sysroot for the preset product-i586.
# Its package cannot be installed alongside the 64-bit one; apt fetches it through lists of its own, so
# that this machine's list of architectures stays as it is. Quick when it is all there; needs no root but
# for installing g++-multilib.
set -euo pipefail
cd "$(dirname "$0")/.."
. tools/packages.sh

if [ $# -gt 0 ]; then
    echo "usage: tools/i586_sysroot.sh"
    echo "Makes build/i586-sysroot for the presets product-i586 and test-i586."
    [ "$*" = --help ] && exit 0 || exit 2
fi

need_packages i586
sysroot=build/i586-sysroot
[ -e "$sysroot/complete" ] && exit 0

echo "fetching the 32-bit musl (once) ..."
mkdir -p build
work=$(mktemp -d build/i586-sysroot.XXXXXX)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work"/{state/lists/partial,cache/archives/partial,root}
options=(-o APT::Architecture=i386 -o APT::Architectures=i386 -o Acquire::Languages=none
    -o "Dir::State=$PWD/$work/state" -o "Dir::Cache=$PWD/$work/cache" -o Dir::State::status=/dev/null
    -o "APT::Sandbox::User=$(id -un)")
# A missing list of another suite is harmless: a failing download would show it.
(cd "$work" && { apt-get "${options[@]}" update || true; } &&
    apt-get "${options[@]}" download musl-dev) >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    echo "error: apt-get cannot fetch musl-dev:i386; it needs a Debian mirror that has i386" >&2
    exit 1
}
for package in "$work"/*.deb; do
    dpkg-deb -x "$package" "$work/root"
done
touch "$work/root/complete"
rm -rf "$sysroot"
mv "$work/root" "$sysroot"
