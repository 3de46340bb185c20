#!/usr/bin/env bash
# Renews the recorded session of README.md, docs/images/session.svg, from a real run. Installs what is missing, builds;
# needs root, for two machines of their own. Times and keys are new every time, all else is what the programs print.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
source scripts/prepare.sh

prepare iproute2 python3 python3-pyte
build release abonent transportIp
exec /usr/bin/python3 -B scripts/record.py build/release/bin docs/images/session.svg
