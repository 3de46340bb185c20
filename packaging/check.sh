#!/usr/bin/env bash
# Builds the packages, lets lintian judge them, installs them into a bare system, runs them there as a user
# who may and as one who may not, boots that system and runs the services, and purges all. Needs root.
#   packaging/check.sh [--here]      --here, or no mirror for debootstrap: this system instead of a bare one, and
#                                    nothing is booted
set -Eeuo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/prepare.sh
prepare lintian debootstrap dpkg-dev fakeroot lnav iproute2 man-db procps

root=$(mktemp -d)
manager= # process number of the booted system's first process
cleanup() {
    [ -z "$manager" ] || kill -KILL "$manager" 2>/dev/null || true
    umount "$root/system/proc" 2>/dev/null || true
    umount "$root/system" 2>/dev/null || true
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
        mount --bind "$system" "$system" # a root of mounts of its own
        cp /etc/resolv.conf "$system/etc/"
        mount -t proc proc "$system/proc"
    else
        tail -n 2 "$root/log"
        echo "debootstrap failed; installing into this system instead."
    fi
fi
exec= # set to the word itself in the background, so that $! is the program
inside() { $exec chroot "$system" env LANG=C.UTF-8 DEBIAN_FRONTEND=noninteractive "$@"; }
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
exec=exec as ipchannel timeout -s INT 30 abonent listen --name Борис >"$root/boris" &
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

step "The papers of the service"
for unit in abonent.service abonent@.service; do # the program of an installation of its own is mounted by the unit
    inside unshare --mount sh -c 'install -d /var/lib/abonent/i/bin
        mount --bind /usr/lib/ipchannel/bin /var/lib/abonent/i/bin
        exec systemd-analyze verify --man=no "/lib/systemd/system/$0"' $unit
    figure=$(inside systemd-analyze security --offline=true --no-pager /lib/systemd/system/$unit |
        sed -n 's/.*exposure level for .*: \([0-9.]*\) .*/\1/p')
    echo "systemd-analyze security $unit: $figure"
    grep -q "systemd-analyze security.*$figure" docs/ru/administrator.md
done
inside rm -r /var/lib/abonent/i
inside bash -n /usr/share/bash-completion/completions/abonent
mkdir -p "$root/home/.lnav/formats/abonent"
cp "$system/etc/lnav/formats/abonent/abonent.json" "$root/home/.lnav/formats/abonent/"
log=$(ls "$system"/var/lib/ipchannel/data/0/log/*.log | head -1)
env -u XDG_CONFIG_HOME HOME="$root/home" lnav -C
env -u XDG_CONFIG_HOME HOME="$root/home" lnav -n -c ";select count(*) from abonent_log where source = 'CIpThread'" "$log" \
    >"$root/counted"
grep -Eqx ' *[1-9][0-9]* *' "$root/counted"
for language in '' ru/; do
    LC_ALL=C.UTF-8 man --warnings -l "$system/usr/share/man/${language}man1/abonent.1.gz" >"$root/page" 2>"$root/warnings"
    [ -s "$root/page" ] && [ ! -s "$root/warnings" ]
done

# booted COMMAND: in the system that systemd has booted, in namespaces of its own
booted() { nsenter -t "$manager" --all --root --wdns=/ env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LANG=C.UTF-8 "$@"; }
boot() {
    inside systemd-machine-id-setup >/dev/null 2>&1
    unshare --pid --fork --kill-child --mount --uts --ipc --cgroup --net bash -euc '
        mount --make-rprivate /
        cd "$1"
        for place in run tmp sys dev dev/shm dev/pts sys/fs/cgroup; do
            mkdir -p $place
            mount -t tmpfs -o mode=755 none $place
            if [ $place = dev ]; then
                for node in null zero full random urandom tty; do touch dev/$node; mount --bind /dev/$node dev/$node; done
                ln -s /proc/self/fd dev/fd
                ln -s pts/ptmx dev/ptmx
            fi
        done
        mount -t devpts -o newinstance,ptmxmode=0666 none dev/pts
        mount -t cgroup2 none sys/fs/cgroup
        mount -t proc proc proc
        mkdir -p .old
        pivot_root . .old
        umount -l /.old
        exec env -i container=other /lib/systemd/systemd --log-target=null --unit=multi-user.target
        ' boot "$system" >"$root/boot" 2>&1 &
    local outer=$!
    for _ in {1..100}; do
        manager=$(pgrep -P $outer -x systemd || true)
        if [ -n "$manager" ] && booted systemctl is-system-running 2>/dev/null | grep -Eq 'running|degraded'; then
            nsenter -t "$manager" --net ip link set lo up
            return
        fi
        sleep 0.3
    done
    cat "$root/boot"
    return 1
}
# eventually COMMAND: within some time
eventually() {
    for _ in {1..100}; do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.2
    done
    "$@"
}
figure_is() { booted grep -q "^abonent_$2{.*} $3\$" "/run/abonent/$1.prom"; }
restarted() { [ "$(booted systemctl show -P NRestarts abonent.service)" -gt 0 ]; }

if [ "$system" != / ] && boot; then
    step "The services, under $(booted systemctl --version | head -n 1)"
    booted systemctl start abonent.service # waits for READY=1
    booted systemctl show -P StatusText abonent.service | tee "$root/status"
    grep -q '^Работает' "$root/status"
    booted abonent-instance post settings set port=18124 Abonent/name=Пост >/dev/null
    booted systemctl start abonent@post.service
    send() { booted setpriv --reuid nobody --regid ipchannel --clear-groups env USER=nobody abonent send "$@" >"$root/sent"; }
    send Пост 127.0.0.1:18124 --text 'Первое'
    booted abonent-instance post journal | grep -q "принято, 'Борис'"
    eventually figure_is abonent messages_sent_total 1
    if command -v promtool >/dev/null; then booted cat /run/abonent/abonent.prom | promtool check metrics; fi

    step "The log is renamed, the next record begins a new one"
    logged inside apt-get install -y -qq --no-install-recommends logrotate
    booted logrotate -f /etc/logrotate.d/abonent
    send Пост --text 'Второе'
    begun='cd /var/lib/ipchannel/data/0/log; head -n 1 abonent_ipchannel_*.log | grep -q ^Версия &&
        grep -q "Пост" abonent_ipchannel_*.log && grep -q "Пост" abonent_ipchannel_*.log.1'
    eventually booted sh -c "$begun"

    step "Kept until an administrator decides otherwise"
    inbox=/var/lib/abonent/post/data/0/messages
    booted systemd-tmpfiles --clean
    [ "$(booted ls $inbox/input)" = "$(printf '00000001\n00000002')" ]
    send Никто 127.0.0.1:1 --text 'Не доставлено' || true
    sed 's/365d/1s/' "$system/usr/share/doc/abonent/examples/retention.conf" >"$system/etc/tmpfiles.d/abonent.conf"
    sleep 2
    booted systemd-tmpfiles --clean
    [ -z "$(booted ls $inbox/input)" ]
    booted sh -c "test -s $inbox/stored.index && test -s /var/lib/ipchannel/data/0/messages/output/*/message"

    step "A program that hangs is started again"
    booted mkdir -p /run/systemd/system/abonent.service.d
    printf '[Service]\nWatchdogSec=2\nRestartSec=1\n' >"$root/drop-in"
    booted tee /run/systemd/system/abonent.service.d/watch.conf <"$root/drop-in" >/dev/null
    booted systemctl daemon-reload
    booted systemctl restart abonent.service
    sleep 5
    if restarted; then echo "It hung by itself." >&2; exit 1; fi
    booted sh -c 'kill -STOP "$(systemctl show -P MainPID abonent.service)"'
    eventually restarted
    eventually booted systemctl is-active abonent.service

    booted systemctl stop abonent.service
    figure_is abonent running 0
    logged booted env DEBIAN_FRONTEND=noninteractive dpkg --remove abonent # stops the other one
    [ "$(booted systemctl is-active abonent@post.service || true)" = inactive ]
    kill -KILL "$manager"
    manager=
else
    echo "Nothing was booted: the services were not run."
fi

step "Purge"
logged inside dpkg --purge abonent ipchannel-plugin
left=$(inside sh -c 'ls -d /var/lib/ipchannel /var/lib/abonent /usr/lib/ipchannel /usr/bin/abonent 2>/dev/null' || true)
[ -z "$left" ] || { echo "left behind: $left" >&2; exit 1; }
rm -rf "$system/tmp/packages"
step "The packages are sound"
