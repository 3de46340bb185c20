#!/usr/bin/env bash
# Every source is formatted as .clang-format says.
#   checkformat.sh ROOT
set -euo pipefail
cd "$1"
command -v clang-format >/dev/null || exit 77
git ls-files -z '*.cpp' '*.h' | xargs -0 clang-format --dry-run -Werror
