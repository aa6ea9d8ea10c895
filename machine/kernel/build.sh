#!/usr/bin/env bash
# Builds the cabinets' kernels from Debian's kernel source, once, and prints where they are. See build.sh --help.
#
# A kernel's folder is ${QEL_CACHE:-~/.cache/qel-loader}/kernel-KEY, the key being made of everything that goes
# into the kernel (raise `recipe` when a change of this script changes the result); `source` in it leads to the
# source, which kernels share. Only folders' names are printed to standard output, progress goes to standard error.
set -euo pipefail

usage() {
    cat <<'EOF'
usage: build.sh [TARGET...]                 builds or reuses the kernel of each TARGET (x86-64, the default, or i586);
                                            prints its folder, which holds `vmlinux` and `bzImage` (for QEMU's
                                            -kernel) and `gen_init_cpio`
       build.sh embed TARGET LIST OUTPUT    links a boot file OUTPUT with the RAM disk of LIST (the format of the
                                            kernel's usr/gen_init_cpio) inside, for a cabinet that boots by itself
A kernel that is in the folder QEL_KERNEL_CACHE already, for the same target, is taken as it is.
EOF
}

here=$(cd "$(dirname "$0")" && pwd)
cache=${QEL_CACHE:-$HOME/.cache/qel-loader}
. "$here/../../tools/packages.sh"
say() { echo "$@" >&2; }

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

key_of() { sha256sum | cut -c1-12; }

# Nothing of these folders goes into the kernels; their Kconfig and Makefiles are read all the same.
left_out=(Documentation 'arch/[!x]' drivers/{clk,comedi,crypto,dma,edac,gpio,gpu,hid,hwmon,i2c,iio,infiniband,input}/
    drivers/{md,media,mfd,mmc,mtd,nvme,phy,pinctrl,platform,power,regulator,s390,soc,spi,staging,thunderbolt}/
    'drivers/misc/*/' 'drivers/net/*/' 'drivers/scsi/*/' drivers/video/fbdev/
    fs/{9p,afs,btrfs,ceph,ext4,f2fs,gfs2,jffs2,jfs,nfs,nfsd,nilfs2,ntfs3,ocfs2,reiserfs,smb,ubifs,xfs}/
    net/{batman-adv,bluetooth,bridge,ipv4,mac80211,netfilter,rxrpc,sctp,tipc,wireless}/
    samples/ sound/{firewire,isa,pci,soc,usb}/ tools/{perf,testing}/)

unpack() {
    local options=() name
    for name in "${left_out[@]}"; do
        options+=("--exclude=linux-source-6.1/$name*.[chS]")
    done
    rm -rf "$source.new" &&
    mkdir "$source.new" &&
    tar -xf /usr/src/linux-source-6.1.tar.xz -C "$source.new" --strip-components=1 "${options[@]}" &&
    mkdir -p "$source.new/drivers/misc/qel" &&
    cp "$here"/drivers/* "$source.new/drivers/misc/qel/" &&
    echo 'obj-y += qel/' >>"$source.new/drivers/misc/Makefile" &&
    cat "$here"/*.patch | patch -d "$source.new" -p1 &&
    mv "$source.new" "$source"
}

# configure LIST: LIST is what the embedded RAM disk is made of. What the configuration does not name is left out.
configure() {
    local build=$folder/build line
    mkdir -p "$build" &&
    { cat "$here/cabinet.config" "$here/$target.config" && echo "CONFIG_INITRAMFS_SOURCE=\"$1\""; } \
        >"$build/cabinet.config" &&
    make -C "$folder/source" O="$build" ARCH=x86 KCONFIG_ALLCONFIG="$build/cabinet.config" allnoconfig || return 1
    # An option that the configuration dropped would show only as a cabinet that does not start.
    while read -r line; do
        grep -qxF "$line" "$build/.config" || { echo "dropped: $line"; return 1; }
    done < <(grep '^CONFIG' "$build/cabinet.config")
}

# A message per tenth of the objects goes to descriptor 8.
compile() {
    local line done=0 objects=780 # as counted in a build
    make -C "$folder/source" O="$folder/build" ARCH=x86 -j"$(nproc)" bzImage 2>&1 |
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

build() {
    local source=$cache/source-$source_key
    say "kernel: building $target's, version $version, in $folder (once)"
    exec 6>"$source.lock"
    flock 6
    [ -e "$source" ] || run_step "unpacking the source" unpack
    exec 6>&-
    ln -sfn "$source" "$folder/source"
    run_step "configuring" configure "$here/embedded.list"
    run_step "compiling" compile 8>&2
    cp "$folder/build/vmlinux" "$folder/build/arch/x86/boot/bzImage" "$folder/build/usr/gen_init_cpio" "$folder/"
    strip "$folder/vmlinux"
    echo "$target" >"$folder/target"
}

# prepare TARGET: leaves the folder of its kernel, locked and complete, in $folder.
prepare() {
    target=$1
    [ -e "$here/$target.config" ] || { usage >&2; exit 2; }
    folder=${QEL_KERNEL_CACHE:-}
    if [ "$(cat "$folder/target" 2>/dev/null)" != "$target" ]; then
        need_packages kernel >&2
        version=$(dpkg-query -W -f '${Version}' linux-source-6.1)
        recipe=2
        source_key=$({ echo "$recipe $version ${left_out[*]}"; cd "$here" && cat ./*.patch drivers/*; } | key_of)
        folder=$cache/kernel-$({ echo "$source_key"; cd "$here" && cat cabinet.config "$target.config" embedded.list; } |
            key_of)
        mkdir -p "$folder"
    fi
    exec 9>"$folder/lock"
    flock 9
    [ -e "$folder/target" ] || build
}

case "$#${1:-}" in
1--help) usage; exit 0 ;;
4embed)
    prepare "$2"
    run_step "configuring with the RAM disk" configure "$(realpath "$3")"
    run_step "linking with the RAM disk" compile 8>/dev/null
    cp "$folder/build/arch/x86/boot/bzImage" "$4"
    ;;
*)
    [ $# -gt 0 ] || set -- x86-64
    for name in "$@"; do
        prepare "$name"
        echo "$folder"
    done
    ;;
esac
