#!/bin/bash
# Two abonents on this machine, each with an installation of its own, exchange texts and a file of 100 MB through
# the channel plug-in; the first text is sent while the other side is absent. Installs what is missing, builds, and
# checks the result.
# Exit code 0: everything arrived and is the same. Safe to repeat.
set -u
source "$(dirname "${BASH_SOURCE[0]}")/scripts/prepare.sh"

prepare && build release abonent transportIp || exit 1

place=$(mktemp -d)
listener=
cleanup() {
    [ -z "$listener" ] || kill -KILL "$listener" 2>/dev/null
    rm -rf "$place"
}
trap cleanup EXIT
trap 'exit 1' INT TERM

fail() {
    echo "НЕ УДАЛОСЬ: $*" >&2
    exit 1
}

free_port() {
    local port
    for _ in {1..50}; do
        port=$((20000 + RANDOM % 10000))
        if ! (exec 3<>"/dev/tcp/127.0.0.1/$port") 2>/dev/null; then
            echo "$port"
            return 0
        fi
    done
    return 1
}

step "Two installations in $place"
for name in anna boris; do
    mkdir -p "$place/$name"
    cp -r "$root/build/release/bin" "$place/$name/bin"
    port=$(free_port) || fail "нет свободного порта"
    "$place/$name/bin/abonent" settings set "port=$port" || fail "настройки $name"
    eval "port_$name=$port"
done
"$place/boris/bin/abonent" settings show | head -n 6

step "abonent contact: они знают друг друга по именам"
"$place/anna/bin/abonent" contact add Борис "127.0.0.1:$port_boris" || fail "контакт Борис"
"$place/boris/bin/abonent" contact add Анна "127.0.0.1:$port_anna" || fail "контакт Анна"

step "abonent send: Бориса еще нет, сообщение остается в исходящих"
absent='Борис, прочтешь, когда появишься.'
"$place/anna/bin/abonent" send Борис --name Анна --text "$absent" 2>&1 | sed -u 's/^/  Анна  | /'
[ "${PIPESTATUS[0]}" = 3 ] || fail "код отправки без ответа ${PIPESTATUS[0]}"
"$place/anna/bin/abonent" outbox list

step "abonent listen: Борис, порт $port"
"$place/boris/bin/abonent" listen --name Борис > >(tee "$place/boris.out" | sed -u 's/^/  Борис | /') 2>&1 &
listener=$!
for _ in {1..100}; do
    grep -q "успешно запущен" "$place/boris.out" 2>/dev/null && break
    sleep 0.1
done
grep -q "успешно запущен" "$place/boris.out" || fail "Борис не принимает вызовы"

step "abonent send: Анна передает Борису текст и файл 100 МБ, и первое сообщение с ними"
head -c 100000000 /dev/urandom > "$place/file.bin"
text='Привет, Борис! Файл следом.'
set -o pipefail
timeout 120 "$place/anna/bin/abonent" send Борис --text "$text" "$place/file.bin" 2>&1 |
    sed -u 's/^/  Анна  | /' || fail "передача, код $?"

step "abonent listen по сигналу завершает работу"
kill -INT "$listener"
wait "$listener" || fail "код завершения $?"
listener=
sleep 0.2 # the last lines pass through the pipe

step "Что получил Борис"
inbox=$place/boris/data/0/messages/input
find "$inbox" -type f -printf '%P  %s байт\n' | sort
sent=$(sha256sum < "$place/file.bin")
received=$(cat "$inbox"/*/file.bin | sha256sum)
echo "SHA-256 отправлено: ${sent%% *}"
echo "SHA-256 получено:   ${received%% *}"
[ "$sent" = "$received" ] || fail "файл не тот"
[ "$(cat "$inbox"/00000001/text.txt)" = "$absent" ] || fail "первый текст не тот"
[ "$(cat "$inbox"/00000002/text.txt)" = "$text" ] || fail "текст не тот"
grep -q "SHA-256: ${sent%% *}" "$inbox"/*/message.txt || fail "описание не то"

step "abonent journal: что записано у Бориса"
"$place/boris/bin/abonent" journal

step "Готово: тексты и файл получены по одному разу, по порядку и совпадают"
