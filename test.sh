#!/usr/bin/env bash
# Installs what is missing, builds and runs all tests.
#
#   ./test.sh            the quick forms, also under the sanitizers
#   ./test.sh --plain    without the sanitizer builds
#   ./test.sh --long     the long forms of the fault and load tests, clang, and the packages, as well
set -euo pipefail
cd "$(dirname "$0")"
. scripts/prepare.sh

sanitizers=yes
long=
for argument in "$@"; do
    case $argument in
    --plain) sanitizers= ;;
    --long) long=1 ;;
    -h | --help)
        sed -n '2,7s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    *)
        echo "Unknown argument $argument; see --help" >&2
        exit 2
        ;;
    esac
done
[ -z "$long" ] || export IPCHANNEL_LONG=1

prepare abigail-tools clang-format doxygen git iproute2 make nftables openssl procps python3 python3-pyte ufw valgrind

# run PRESET [ctest argument ...]
run() {
    local preset=$1
    shift
    step "Testing ($preset)"
    ctest --test-dir "build/$preset" --output-on-failure --progress --schedule-random -j 2 "$@"
}

build dev
run dev
if [ -n "$sanitizers" ]; then
    # What needs no second look there: formats and documents, instruction counts, the kit, channels that leak on purpose.
    build dev-asan
    run dev-asan -LE 'style|counts|kit|heavy'
    # Only the tests in which threads meet; the sanitizer has no use for the others.
    build dev-tsan tst_cipserver tst_foreignhost tst_fire tst_race
    run dev-tsan -L threads -E smallhost
fi
if [ -n "$long" ]; then
    prepare clang-14
    build dev-clang # the other compiler has to be content as well
    packaging/check.sh
fi
step "All tests passed"
