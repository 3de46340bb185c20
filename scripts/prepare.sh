# Shared by the scripts in the root: installs what is missing and builds. To be sourced from bash.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What building and running needs on a bare Debian 12.
packages=(g++ cmake ninja-build pkg-config qtbase5-dev libssl-dev libsqlite3-dev)

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

if [ ! -t 1 ]; then
    step() { printf '\n== %s\n' "$*"; }
fi

# prepare [package ...]: installs the packages of the build and those named, as far as they are missing.
prepare() {
    local package missing=() sudo=
    for package in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    step "Installing ${missing[*]}"
    if [ "$(id -u)" -ne 0 ]; then
        sudo=sudo
        command -v sudo >/dev/null || { echo "These packages are missing and can be installed by root only: ${missing[*]}" >&2; return 1; }
    fi
    local log
    log=$(mktemp)
    if ! { $sudo apt-get update -qq &&
           $sudo env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends "${missing[@]}"; } >"$log" 2>&1; then
        tail -n 30 "$log" >&2
        rm -f "$log"
        return 1
    fi
    rm -f "$log"
}

# build PRESET [target ...]: configures and builds; quiet unless something is wrong. The result is in build/PRESET.
build() {
    local preset=$1 log
    shift
    step "Building ($preset)"
    log=$(mktemp)
    local launcher=()
    command -v ccache >/dev/null && launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    if ! { cd "$root" && cmake --preset "$preset" "${launcher[@]}" &&
           cmake --build --preset "$preset" ${1:+--target "$@"}; } >"$log" 2>&1; then
        tail -n 60 "$log" >&2
        rm -f "$log"
        return 1
    fi
    grep -E 'warning:' "$log" >&2 || true
    rm -f "$log"
}
