# shellcheck shell=bash
# Sourced by ./run, ./check and the tools: installs the Debian packages that a step needs.
#
#   need_packages NAME...    installs what is missing, as root or through sudo; quiet when all is there

need_packages() {
    local missing=() name
    for name in "$@"; do
        dpkg-query -W -f '${db:Status-Status}\n' "$name" 2>/dev/null | grep -qx installed || missing+=("$name")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
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
}
