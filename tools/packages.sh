# shellcheck shell=bash
# Sourced by ./run, ./check and the tools: the Debian packages that each step needs, and their installation.
#
#   need_packages GROUP...   installs what is missing of groups, as root or through sudo; quiet when all is there

declare -A packages=(
    [build]="g++ cmake ninja-build"
    [product]="musl-tools binutils file python3"
    [i586]="g++-multilib ca-certificates"
    [tools]="python3 binutils libcli11-dev nlohmann-json3-dev libpng-dev libx11-dev libncurses-dev"
    [cabinet]="qemu-system-x86 busybox-static xvfb x11-xkb-utils xkb-data syslinux extlinux mtools dosfstools fdisk
        minizip zip util-linux"
    [kernel]="linux-source-6.1 gcc make patch flex bison libelf-dev libssl-dev bc cpio kmod xz-utils"
    [clang]="clang libclang-rt-14-dev llvm"
    [gtest]="libgtest-dev libgmock-dev"
    [tests]="make git minizip zip wine64 tshark pkgconf mandoc tmux"
    [style]="clang clang-format clang-tidy git pyflakes3 shellcheck codespell libbenchmark-dev libboost-dev"
    [release]="dpkg-dev lintian mmdebstrap"
    [bench]="make libbenchmark-dev libboost-dev busybox-static tini rsync strace findutils tshark"
)

# What runs inside the 32-bit cabinet, and all that it needs, for tools/i386_packages.sh.
# shellcheck disable=SC2034
i386_programs=(busybox-static xvfb x11-xkb-utils fdisk dosfstools extlinux minizip
    libaudit1 libblkid1 libbrotli1 libbsd0 libbz2-1.0 libc6 libcap-ng0 libcap2 libfdisk1 libfontenc1 libfreetype6
    libgcrypt20 libgl1 libglvnd0 libglx0 libgpg-error0 liblz4-1 liblzma5 libmd0 libminizip1 libpcre2-8-0
    libpixman-1-0 libpng16-16 libreadline8 libselinux1 libsmartcols1 libsystemd0 libtinfo6 libunwind8 libuuid1
    libx11-6 libxau6 libxcb1 libxdmcp6 libxfont2 libxkbfile1 libzstd1 zlib1g)

need_packages() {
    local missing=() name group names=() installed
    for group in "$@"; do
        read -ra group -d '' <<<"${packages[$group]}" || true
        names+=("${group[@]}")
    done
    installed=$(dpkg-query -W -f ' ${Package} ${db:Status-Status}\n' "${names[@]}" 2>/dev/null || true)$'\n'
    for name in "${names[@]}"; do
        [[ $installed == *" $name installed"$'\n'* ]] || missing+=("$name")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    # One at a time.
    exec 5<"${BASH_SOURCE[0]}"
    flock 5
    local sudo=()
    if [ "$(id -u)" -ne 0 ]; then
        if ! command -v sudo >/dev/null; then
            echo "error: packages are missing: ${missing[*]}" >&2
            echo "       run this command as root, or install them: apt-get install ${missing[*]}" >&2
            return 1
        fi
        sudo=(sudo)
    fi
    echo "installing packages: ${missing[*]}"
    local log
    log=$(mktemp)
    if ! { "${sudo[@]}" apt-get update &&
           "${sudo[@]}" env DEBIAN_FRONTEND=noninteractive apt-get install -y --no-install-recommends \
               "${missing[@]}"; } >"$log" 2>&1 </dev/null; then
        cat "$log" >&2
        echo "error: apt-get could not install: ${missing[*]}" >&2
        echo "       is there a network, and do /etc/apt/sources.list* name Debian 12?" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
    exec 5<&-
}
