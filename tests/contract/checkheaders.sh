#!/usr/bin/env bash
# The public headers compile alone, without Qt's keywords and without a warning, under the oldest standard; together also
# under the newest, and as system headers under each. Of the others, those that no source of their own includes first.
#   checkheaders.sh ROOT COMPILER QT-INCLUDES PUBLIC-HEADERS      the last two separated by colons
set -euo pipefail
cd "$1"
export compiler=$2
export switches="-fsyntax-only -x c++ -fPIC -DQT_NO_KEYWORDS -Wall -Wextra -Wpedantic -Wshadow -Wold-style-cast -Werror"
switches+=" -isystem ${3//:/ -isystem }"

# Lines of: standard, way of including, headers
{
    for standard in 11 14 17 20; do
        echo "$standard -isystem ${4//:/ }"
    done
    tr ':' '\n' <<<"$4" | sed 's/^/11 -I /'
    echo "20 -I ${4//:/ }"
    for header in $(ls interfaces/*.h common/*.h transportIp/*.h | grep -vxF "$(tr ':' '\n' <<<"$4")"); do
        [ -e "${header%.h}.cpp" ] || echo "17 -I $header"
    done
} | xargs -P 2 -L 1 bash -c '
    standard=$0 way=$1
    shift
    printf "#include \"%s\"\n" "$@" | $compiler -std=c++$standard $switches $way . - || { echo "above: C++$standard, $way, $*"; exit 1; }'
