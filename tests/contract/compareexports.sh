#!/usr/bin/env bash
# Compares the symbols that the plug-in exports with the list; inline ones come and go with optimization.
#   compareexports.sh libtransportIp.so exports.txt
set -euo pipefail
diff -u "$2" <(nm -DC --defined-only "$1" | awk '$2 ~ /[TDBR]/ { $1 = $2 = ""; print substr($0, 3) }' | sort -u)
