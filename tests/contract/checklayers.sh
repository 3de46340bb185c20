#!/usr/bin/env bash
# No folder includes what it must not know of.
#   checklayers.sh ROOT
set -euo pipefail
cd "$1"
bad=0
# forbid FOLDER REGEX: no file below FOLDER includes a path that matches
forbid() {
    if grep -nrE "^#include \"($2)" "$1" --include='*.h' --include='*.cpp'; then bad=1; fi
}
forbid interfaces 'common/|transportIp/|host/|tests/|bench/'
forbid common 'interfaces/|transportIp/|host/|tests/|bench/'
forbid transportIp 'host/|tests/|bench/'
forbid host 'tests/|bench/|transportIp/[^i]|transportIp/i[^p]|transportIp/ip[^s]'

# The rooms of the host, the upper ones first ("." is its root): includes point to the same line or downwards.
above=
while read -r line; do
    for room in $line; do
        if [ -n "$above" ]; then forbid "host/$room" "host/($above)"; fi
    done
    for room in $line; do above="$above${above:+|}$([ "$room" = . ] && echo '[^/]*"' || echo "$room/")"; done
done <<'ROOMS'
. commands check health screen
service settings logs
conversation
delivery
console
text
ROOMS
forbid host/conversation host/console/ # another host takes the conversation without our terminal

if grep -nrE '^#include "[^/"]*"' interfaces common transportIp --include='*.h' --include='*.cpp'; then
    echo "Inside the house a room is included by its path from the root."
    bad=1
fi
exit $bad
