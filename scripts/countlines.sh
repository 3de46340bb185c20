#!/usr/bin/env bash
# Prints how many lines of code the tests have for those of the product: lines neither blank nor comment. Wanted are
# 33 % at the most.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."

# Data, not code: the faults of the validator's channels, as a table. (The corpus of the fuzzers and the description of
# the binary contract have other endings.)
data=tests/validator/seeds.h

count() {
    git ls-files -z -- "$@" | grep -zE '\.(h|cpp|sh|py|pl)$' | grep -zvxF "$data" | xargs -0 -r cat |
        grep -cvE '^[[:space:]]*((//|#[! ]).*|#)?$'
}
code=$(count interfaces common transportIp host examples)
tests=$(count tests fuzz)
echo "Lines of code: $code of the product, $tests of the tests: $((100 * tests / code)) %"
