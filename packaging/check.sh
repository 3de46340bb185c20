#!/usr/bin/env bash
# Builds the packages, lets lintian judge them, installs them into a bare system, runs them there as a user
# who may and as one who may not, and purges them. Needs root.
#   packaging/check.sh [--here]      --here, or no mirror for debootstrap: this system instead of a bare one
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/prepare.sh
prepare lintian debootstrap dpkg-dev fakeroot

root=$(mktemp -d)
cleanup() {
    umount "$root/system/proc" 2>/dev/null || true
    rm -rf --one-file-system "$root"
}
trap cleanup EXIT
trap 'echo "failed in line $LINENO: $BASH_COMMAND" >&2' ERR
chmod 755 "$root"
logged() { "$@" >"$root/log" 2>&1 || { tail -n 40 "$root/log" >&2; return 1; }; }

logged packaging/build.sh
step lintian
lintian --allow-root --fail-on error,warning build/package/*.deb

system=/
if [ "${1:-}" != --here ]; then
    step "A bare system"
    mirror=$(apt-cache policy | awk '/release.*n=bookworm,.*c=main/ { print last; exit } { last = $2 }')
    if debootstrap --variant=minbase bookworm "$root/system" ${mirror:+"$mirror"} >"$root/log" 2>&1; then
        system=$root/system
        cp /etc/resolv.conf "$system/etc/"
        mount -t proc proc "$system/proc"
    else
        tail -n 2 "$root/log"
        echo "debootstrap failed; installing into this system instead."
    fi
fi
inside() { chroot "$system" env LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
# as GROUP COMMAND: somebody without rights of his own
as() { inside setpriv --reuid nobody --clear-groups --regid "$1" env USER=nobody "${@:2}"; }

step "Install, and install again over it"
mkdir -p "$system/tmp/packages"
cp build/package/*.deb "$system/tmp/packages"
logged inside apt-get update -qq
logged inside sh -c 'apt-get install -y -qq --no-install-recommends /tmp/packages/ipchannel-plugin_*.deb /tmp/packages/abonent_*.deb'
logged inside sh -c 'dpkg -i /tmp/packages/abonent_*.deb'

step "Run"
[ "$(inside stat -c '%a %U:%G' /var/lib/ipchannel)" = "750 root:ipchannel" ]
shows_port() { as ipchannel abonent settings show >"$root/shown"; grep -Eq "^ *port +$1 " "$root/shown"; }
as ipchannel abonent settings set port=18123 >"$root/log"
shows_port 18123
as ipchannel timeout -s INT 30 abonent listen --name Борис >"$root/boris" &
listener=$!
for _ in {1..100}; do
    grep -q 'успешно запущен' "$root/boris" && break
    sleep 0.1
done
as ipchannel abonent send Борис 127.0.0.1:18123 --name Анна --text 'Привет, Борис!' >"$root/anna"
kill "$listener" # timeout passes it on
wait "$listener" || true
[ "$(inside sh -c 'cat /var/lib/ipchannel/data/0/messages/input/*/text.txt')" = 'Привет, Борис!' ]
if as nogroup abonent settings set port=18124 >"$root/log" 2>&1; then
    echo "A stranger could change the settings." >&2
    exit 1
fi
shows_port 18123

step "Purge"
logged inside dpkg --purge abonent ipchannel-plugin
left=$(inside sh -c 'ls -d /var/lib/ipchannel /usr/lib/ipchannel /usr/bin/abonent 2>/dev/null' || true)
[ -z "$left" ] || { echo "left behind: $left" >&2; exit 1; }
rm -rf "$system/tmp/packages"
step "The packages are sound"
