#!/usr/bin/env bash
# Builds the static loaders that the cabinet's RAM disks get, of both word sizes.
set -euo pipefail
cd "$(dirname "$0")/../.."
tools/i586_sysroot.sh
for preset in product product-i586; do
    cmake --preset "$preset"
    cmake --build --preset "$preset"
done
