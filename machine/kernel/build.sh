#!/usr/bin/env bash
# Builds the cabinet's kernel from Debian's kernel source, once, and prints where it is. See build.sh --help.
#
# The folder is ${QEL_CACHE:-~/.cache/qel-loader}/kernel-KEY, the key being made of everything that goes
# into the kernel (raise `recipe` when a change of this script changes the result). Only the folder's name
# is printed to standard output, progress goes to standard error.
set -euo pipefail

usage() {
    cat <<'EOF'
usage: build.sh                      builds or reuses the kernel; prints its folder, which holds `vmlinux`
                                     (for QEMU's -kernel), `bzImage` and `gen_init_cpio`
       build.sh embed LIST OUTPUT    links a boot file OUTPUT with the RAM disk of LIST (the format of the
                                     kernel's usr/gen_init_cpio) inside, for a cabinet that boots by itself
EOF
}

case "$#${1:-}" in
0 | 3embed) ;;
1--help) usage; exit 0 ;;
*) usage >&2; exit 2 ;;
esac

here=$(cd "$(dirname "$0")" && pwd)
. "$here/../../tools/packages.sh"
say() { echo "$@" >&2; }

need_packages kernel >&2
version=$(dpkg-query -W -f '${Version}' linux-source-6.1)
recipe=1
key=$({ echo "$recipe $version"; cd "$here" && cat cabinet.config disk-name.patch embedded.list drivers/*; } |
      sha256sum | cut -c1-12)
folder=${QEL_CACHE:-$HOME/.cache/qel-loader}/kernel-$key
mkdir -p "$folder"
exec 9>"$folder/lock"
flock 9

# run_step STEP FUNCTION...: a quiet step with its log, of which a failing one shows the end.
run_step() {
    local step=$1 started=$SECONDS
    shift
    say "kernel: $step ..."
    if ! "$@" >"$folder/log" 2>&1; then
        tail -n 30 "$folder/log" >&2
        say "error: kernel: $step failed; the whole log is $folder/log"
        exit 1
    fi
    say "kernel: $step: $((SECONDS - started)) s"
}

unpack() {
    rm -rf "$folder/source" "$folder/unpacked" &&
    mkdir "$folder/unpacked" &&
    tar -xf /usr/src/linux-source-6.1.tar.xz -C "$folder/unpacked" &&
    mv "$folder/unpacked/linux-source-6.1" "$folder/source" &&
    rmdir "$folder/unpacked" &&
    mkdir "$folder/source/drivers/misc/qel" &&
    cp "$here"/drivers/* "$folder/source/drivers/misc/qel/" &&
    echo 'obj-y += qel/' >>"$folder/source/drivers/misc/Makefile" &&
    patch -d "$folder/source" -p1 <"$here/disk-name.patch"
}

# configure LIST: LIST is what the embedded RAM disk is made of.
configure() {
    local source=$folder/source build=$folder/build line
    mkdir -p "$build" &&
    make -C "$source" O="$build" tinyconfig &&
    { cat "$here/cabinet.config"; echo "CONFIG_INITRAMFS_SOURCE=\"$1\""; } >"$build/cabinet.config" &&
    (cd "$build" && "$source/scripts/kconfig/merge_config.sh" -m .config cabinet.config) &&
    make -C "$source" O="$build" olddefconfig || return 1
    # An option that the configuration dropped would show only as a cabinet that does not start.
    while read -r line; do
        grep -qxF "$line" "$build/.config" || { echo "dropped: $line"; return 1; }
    done < <(grep '^CONFIG' "$build/cabinet.config")
}

# A message per tenth of the objects goes to descriptor 8.
compile() {
    local line done=0 objects=970 # as counted in a build
    make -C "$folder/source" O="$folder/build" -j"$(nproc)" bzImage 2>&1 |
        while IFS= read -r line; do
            echo "$line"
            case $line in
            *"  CC  "* | *"  AS  "*)
                done=$((done + 1))
                [ $((done % (objects / 10))) -ne 0 ] || echo "kernel:   $((done * 100 / objects)) %" >&8
                ;;
            esac
        done
}

if [ ! -e "$folder/done" ]; then
    say "kernel: building version $version into $folder (once, about 5 minutes on 2 cores)"
    run_step "unpacking the source" unpack
    run_step "configuring" configure "$here/embedded.list"
    run_step "compiling" compile 8>&2
    cp "$folder/build/vmlinux" "$folder/build/arch/x86/boot/bzImage" "$folder/build/usr/gen_init_cpio" "$folder/"
    strip "$folder/vmlinux"
    touch "$folder/done"
fi

if [ "${1:-}" = embed ]; then
    run_step "configuring with the RAM disk" configure "$(realpath "$2")"
    run_step "linking with the RAM disk" compile 8>/dev/null
    cp "$folder/build/arch/x86/boot/bzImage" "$3"
fi
echo "$folder"
