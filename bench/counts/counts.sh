#!/bin/bash
# Counts the instructions of the hot paths and compares them with the recorded counts.
#   counts.sh PROGRAM COUNTS FLAVOUR           fails when a count has grown by more than 15 %
#   RENEW_COUNTS=1 counts.sh ...               records what it finds instead
# Counts are those of one compiler, Qt and build type (the FLAVOUR): without a record for it, or
# without valgrind, nothing is compared.
set -euo pipefail

program=$1 counts=$2 flavour=$3
calls=200         # as in hotpaths.cpp
allowed=115       # per cent of the recorded count

renew=${RENEW_COUNTS:-}
command -v valgrind >/dev/null || { echo "skipped: no valgrind"; exit 0; }
if [ -z "$renew" ] && ! grep -q "^$flavour"$'\t' "$counts"; then
    echo "skipped: no counts for $flavour; RENEW_COUNTS=1 records them"
    exit 0
fi

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Instructions of one call, on average.
count() {
    if ! valgrind --tool=callgrind --callgrind-out-file=/dev/null --toggle-collect=measured \
            "$program" "$1" >"$work/out" 2>&1; then
        cat "$work/out" >&2
        return 1
    fi
    awk -v calls=$calls '/Collected *:/ { print int($4 / calls) }' "$work/out"
}

[ -z "$renew" ] || grep -v "^$flavour"$'\t' "$counts" >"$work/counts" || true
failed=0
for name in $("$program" || true); do
    now=$(count "$name")
    [ "${now:-0}" -gt 0 ] || { echo "$name: nothing was counted"; exit 1; }
    if [ -n "$renew" ]; then
        printf '%s\t%s\t%s\n' "$flavour" "$name" "$now" >>"$work/counts"
        echo "$name: $now instructions recorded"
        continue
    fi
    known=$(awk -F '\t' -v flavour="$flavour" -v name="$name" '$1 == flavour && $2 == name { print $3 }' "$counts")
    verdict=good
    if [ -z "$known" ]; then
        verdict="FAILED: no count is recorded"
    elif [ $((now * 100)) -gt $((known * allowed)) ]; then
        verdict="FAILED: grown by more than $((allowed - 100)) %"
    fi
    echo "$name: $now instructions, recorded ${known:-none}: $verdict"
    [ "$verdict" = good ] || failed=1
done
[ -z "$renew" ] || cp "$work/counts" "$counts"
exit $failed
