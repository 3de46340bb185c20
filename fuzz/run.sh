#!/usr/bin/env bash
# Fuzzes each reader of foreign bytes: a million runs, or a minute where that takes longer.
#
#   fuzz/run.sh            quick
#   fuzz/run.sh 600        10 minutes each, without a bound of runs
#
# What it finds worth keeping lies in build/fuzz/found; `fuzz/run.sh --keep` adds the best to the corpus.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${FUZZ_BUILD:-build/fuzz}
mkdir -p "$build"
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_COMPILER=clang++-14 \
  -DIPCHANNEL_SANITIZE=fuzzer-no-link,address,undefined >$build.log 2>&1 || { cat $build.log; exit 1; }
cmake --build $build --target fuzz-contacts fuzz-frames fuzz-records fuzz-trees
for target in contacts frames records trees; do
    found=$build/found/$target
    mkdir -p "$found"
    fuzzer=$build/tests/fuzz-$target/bin/fuzz-$target
    if [ "${1:-}" = --keep ]; then
        $fuzzer -merge=1 fuzz/corpus/$target "$found"
        continue
    fi
    limits="-runs=1000000 -max_total_time=60"
    [ -z "${1:-}" ] || limits=-max_total_time=$1
    $fuzzer $limits -max_len=512 -print_final_stats=1 "$found" fuzz/corpus/$target
done
