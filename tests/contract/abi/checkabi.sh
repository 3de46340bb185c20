#!/usr/bin/env bash
# Compares the types of the binary contract with the baseline.
#   checkabi.sh LIBRARY BASELINE             differences fail; 77 when there is no abidiff
#   checkabi.sh --accept LIBRARY BASELINE    makes what is there the new baseline: see docs/contract.md
set -euo pipefail
if ! command -v abidiff >/dev/null; then
    echo "abidiff is missing (package abigail-tools): the binary contract has not been compared."
    exit 77
fi
if [ "$1" = --accept ]; then
    exec abidw --no-corpus-path --no-comp-dir-path --no-show-locs --no-elf-needed --drop-undefined-syms --out-file "$3" "$2"
fi
if ! differences=$(abidiff --harmless "$2" "$1"); then
    # Everything refers to everything: show the places, not the ways to them.
    grep -vE 'some (indirect )?sub-type changes|as (being )?reported|implicit parameter|underlying type|^$' <<<"$differences"
    echo "The binary contract has changed: hosts and plug-ins built before do not fit any more."
    exit 1
fi
