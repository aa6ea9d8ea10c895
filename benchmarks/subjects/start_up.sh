#!/bin/sh
# What the loader does before it starts the application, by a shell and its tools: the same mounts, nodes,
# search and X server, in the same order; with the word qelinstall also an install.
install=$1
echo "QEL Loader..."
echo "mount: /sys /proc"
for mount in "sysfs /sys" "proc /proc" "none /proc/bus/usb"; do
    set -- "${mount% *}" "${mount#* }"
    [ -d "$2" ] || mkdir "$2"
    mount -o bind "/machine/$1" "$2"
done

while read -r number name; do
    case $name in *qellpc*) major=$number ;; esac
done </proc/devices
minor=0
for name in firmware midi lcd command button test console host_comms reserved1 reserved2; do
    mknod -m 666 "/dev/qellpc_$name" c "$major" "$minor"
    minor=$((minor + 1))
done
printf '\005' >/dev/qellpc_command
read -r _ </dev/qellpc_command
exec </dev/null >/dev/null 2>&1

# make_node FOLDER-IN-SYSFS FOLDER-OF-NODES TYPE
make_node() {
    [ -e "$1/dev" ] || return
    IFS=: read -r node_major node_minor <"$1/dev"
    mknod -m 666 "$2/${1##*/}" "$3" "$node_major" "$node_minor"
}
mkdir /dev/snd
for entry in /sys/class/sound/*; do
    make_node "$entry" /dev/snd c
done
mkdir /dev/disk
for disk in /sys/block/hd* /sys/block/sd*; do
    make_node "$disk" /dev/disk b
    for partition in "$disk/${disk##*/}"*; do
        make_node "$partition" /dev/disk b
    done
done

mkdir /disk
for node in /dev/disk/sd*; do
    [ -e "/machine/${node##*/}" ] || continue
    mkdir "/disk/${node##*/}"
    mount -o bind "/machine/${node##*/}" "/disk/${node##*/}"
done

install() {
    printf ',8,4,*\n,28,L\n,,6\n' | /bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc
    sync
    /bin/mkdosfs /dev/disk/hdc1
    cp /disk/sda1/qel_usr.cramfs /machine/hdc2.image
    /bin/mkdosfs /dev/disk/hdc3
    mkdir /boot
    mount -o bind /machine/hdc1 /boot
    cp /disk/sda1/vmlinux /boot/vmlinux
    /bin/syslinux /dev/disk/hdc1
    echo "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1" >/boot/syslinux.cfg
    mkdir /storage
    mount -o bind /machine/hdc3 /storage
    /bin/miniunz /disk/sda1/storage.zip -d /storage
    umount /storage
    umount /boot
    sync
}
[ "$install" != qelinstall ] || install

mkdir -p /usr /storage
mount -o bind /machine/hdc2 /usr
mount -o bind /machine/hdc3 /storage
ln -sf /tmp /qel_home

application=$(find /storage /disk -name 'qel_application_*' | sort | tail -n 1)
case $application in
/disk/*)
    cp "$application" /storage
    application=/storage/${application##*/}
    sync
    ;;
esac
/usr/xorg/bin/Xfake -nolisten tcp -kb &
rm -rf /qel_home/.wine
echo "run: $application"
cd /storage || exit 1
"$application"
