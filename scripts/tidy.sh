#!/usr/bin/env bash
# Looks through the product's sources with clang-tidy and clazy. The exceptions and their reasons stand in .clang-tidy
# and below.
#   scripts/tidy.sh [source ...]
set -euo pipefail
cd "$(dirname "$0")/.."
. scripts/prepare.sh
prepare clang-tidy clang clazy
build dev

sources=("$@")
if [ ${#sources[@]} -eq 0 ]; then
    mapfile -t sources < <(git ls-files 'interfaces/*.cpp' 'common/*.cpp' 'transportIp/*.cpp' 'host/*.cpp')
fi
# Options that only g++ knows are passed over; the standard is g++'s own default.
unknown=(--extra-arg=-std=gnu++17 --extra-arg=-Wno-unknown-warning-option --extra-arg=-Wno-unused-command-line-argument)

step "clang-tidy"
printf '%s\0' "${sources[@]}" | nice xargs -0 -n 4 -P 2 clang-tidy -p build/dev --quiet "${unknown[@]}" 2>/dev/null |
    tee /tmp/tidy.$$ || true
step "clazy"
# level1 without: non-pod-global-static (the settings record has to exist when the library is loaded; it is trivially
# destroyed), connect-not-normalized (the formatter puts the blanks), qstring-arg (the summary is filled in one piece after
# another on purpose; elsewhere foreign texts go in at once).
checks=level1,no-non-pod-global-static,no-connect-not-normalized,no-qstring-arg
printf '%s\0' "${sources[@]}" | nice xargs -0 -n 4 -P 2 clazy-standalone -p build/dev -checks="$checks" "${unknown[@]}" 2>&1 |
    grep -E '(warning|error): .*\[-Wclazy' | sort -u | tee -a /tmp/tidy.$$ || true
findings=$(grep -cE '(warning|error): ' /tmp/tidy.$$ || true)
rm -f /tmp/tidy.$$
echo "$findings findings"
[ "$findings" -eq 0 ]
