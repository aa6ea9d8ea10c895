#!/usr/bin/env bash
# Unpacks 32-bit Debian packages into a folder. Nothing is installed, and dpkg need not know the architecture:
# apt fetches them with lists of its own. Quick when the folder has them already; needs no root.
set -euo pipefail
cd "$(dirname "$0")/.."

usage="usage: tools/i386_packages.sh FOLDER PACKAGE...
FOLDER, below build/, gets the files of these packages alone, not of those they depend on."

[ "${1:-}" != --help ] || { echo "$usage"; exit 0; }
[ $# -ge 2 ] || { echo "$usage" >&2; exit 2; }
folder=$1
shift
[ "$(cat "$folder/complete" 2>/dev/null)" != "$*" ] || exit 0

echo "fetching 32-bit packages for $folder (once) ..."
apt=$PWD/build/i386-apt
mkdir -p "$apt"/{state/lists/partial,cache/archives/partial,log} "$(dirname "$folder")"
exec 9>"$apt/lock"
flock 9
work=$(mktemp -d "$folder.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir "$work"/{packages,root}
options=(-o APT::Architecture=i386 -o APT::Architectures=i386 -o Acquire::Languages=none
    -o "Dir::State=$apt/state" -o "Dir::Cache=$apt/cache" -o "Dir::Log=$apt/log" -o Dir::State::status=/dev/null
    -o "APT::Sandbox::User=$(id -un)")
# A missing list of another suite is harmless: a failing download would show it.
(cd "$work/packages" && { apt-get "${options[@]}" update || true; } &&
    apt-get "${options[@]}" download "$@") >"$work/log" 2>&1 || {
    cat "$work/log" >&2
    echo "error: apt-get cannot fetch 32-bit packages; it needs a network and a Debian mirror that has i386" >&2
    exit 1
}
for package in "$work"/packages/*.deb; do
    dpkg-deb -x "$package" "$work/root"
done
echo "$*" >"$work/root/complete"
rm -rf "$folder"
mv "$work/root" "$folder"
chmod 755 "$folder"
