#!/bin/bash
# Measures the product beside its peers and prints tables: ./bench.sh [--rounds N] [--bars] [--into FILE] [area...]
# Areas: stream roundtrip cycles burst live log saving small messenger growth; all of them by default.
#   ./bench.sh plots [--rounds N]    short runs, drawn as docs/images/plot-*.svg
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source scripts/prepare.sh

prepare libasio-dev iperf3 libzmq3-dev libspdlog-dev liblog4cxx-dev nncp python3 rsync >&2
build bench abonent channelbench peers transportIp >&2
if [ "${1:-}" = plots ]; then
    prepare gnuplot-nox >&2
    exec python3 -B bench/driver/plots.py --build build/bench --into docs/images "${@:2}"
fi
exec python3 -B bench/driver/run.py --build build/bench "$@"
