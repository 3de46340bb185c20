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
if grep -nrE '^#include "[^/"]*"' interfaces common transportIp --include='*.h' --include='*.cpp'; then
    echo "Inside the house a room is included by its path from the root."
    bad=1
fi
exit $bad
