# Shared by the scripts in the root: installs what is missing and builds. To be sourced from bash.

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)

# What building and running needs on a bare Debian 12.
packages=(g++ cmake ninja-build pkg-config qtbase5-dev libssl-dev libsqlite3-dev libxxhash-dev libunistring-dev libncurses-dev libsystemd-dev)

step() { printf '\n\033[1m== %s\033[0m\n' "$*"; }

if [ ! -t 1 ]; then
    step() { printf '\n== %s\n' "$*"; }
fi

# packages_do ARGUMENTS...: apt-get as root, quiet unless it fails. While another package manager is at work it says so
# and waits, for ten minutes at most. The lock of the package lists has no timeout of its own, so it is tried again.
packages_do() {
    local log sudo=() waitSeconds=0 deadline=$((SECONDS + 600)) result=1
    [ "$(id -u)" -eq 0 ] || sudo=(sudo)
    log=$(mktemp)
    while ((SECONDS <= deadline)); do
        "${sudo[@]}" env LC_ALL=C DEBIAN_FRONTEND=noninteractive \
            apt-get -qq -o DPkg::Lock::Timeout=$waitSeconds "$@" >"$log" 2>&1 && { result=0; break; }
        grep -q 'Could not get lock' "$log" || break
        [ $waitSeconds -gt 0 ] || echo "Waiting for another package manager: $(grep -o -m 1 'held by .*' "$log" || true)"
        waitSeconds=$((deadline - SECONDS + 1))
        sleep 2
    done
    [ $result -eq 0 ] || tail -n 30 "$log" >&2
    rm -f "$log"
    return $result
}

# prepare [package ...]: installs the packages of the build and those named, as far as they are missing.
prepare() {
    local package missing=()
    for package in "${packages[@]}" "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q ' installed$' || missing+=("$package")
    done
    [ ${#missing[@]} -gt 0 ] || return 0

    step "Installing ${missing[*]}"
    if [ "$(id -u)" -ne 0 ] && ! command -v sudo >/dev/null; then
        echo "These packages are missing and can be installed by root only: ${missing[*]}" >&2
        return 1
    fi
    packages_do update && packages_do install -y --no-install-recommends "${missing[@]}"
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
