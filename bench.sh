#!/bin/bash
# Measures the product beside its peers and prints tables: ./bench.sh [--rounds N] [--bars] [--into FILE] [area...]
# Areas: stream roundtrip cycles burst live log saving small messenger growth; all of them by default.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")"
source scripts/prepare.sh

prepare libasio-dev iperf3 libzmq3-dev libspdlog-dev liblog4cxx-dev nncp python3 rsync >&2
build bench abonent channelbench peers transportIp >&2
exec python3 -B bench/driver/run.py --build build/bench "$@"
