#!/usr/bin/env bash
# Installs what is missing, builds and runs all tests.
#
#   ./test.sh            the quick forms, also under the sanitizers
#   ./test.sh --plain    without the sanitizer builds
#   ./test.sh --long     the long forms of the fault and load tests, clang, the kit, instruction counts and the packages,
#                        as well
#   ./test.sh NAME...    single tests, as `ctest -N` lists them, and builds only what they need
set -euo pipefail
cd "$(dirname "$0")"
. scripts/prepare.sh

sanitizers=yes
long=
names=()
for argument in "$@"; do
    case $argument in
    --plain) sanitizers= ;;
    --long) long=1 ;;
    -h | --help)
        sed -n '2,9s/^# \{0,1\}//p' "$0"
        exit 0
        ;;
    -*)
        echo "Unknown argument $argument; see --help" >&2
        exit 2
        ;;
    *) names+=("$argument") ;;
    esac
done
[ -z "$long" ] || export IPCHANNEL_LONG=1 QTEST_FUNCTION_TIMEOUT=3600000 # ms; QtTest gives a function five minutes

# run PRESET [ctest argument ...]
run() {
    local preset=$1
    shift
    step "Testing ($preset)"
    # Most of them wait most of their time. The long ones begin first: by their COST, later by the time they took.
    ctest --preset "$preset" --progress -j 4 ${long:+--schedule-random} "$@"
}

# target NAME: what a test needs to be built; nothing for those that look at the sources
target() {
    case $1 in
    tst_*) echo "$1" ;;
    fuzz-*) echo "${1%-corpus}" ;;
    smallhost) echo smallhost loopback ;;
    exports) echo transportIp ;;
    abi) echo contractTypes ;;
    esac
}

if [ ${#names[@]} -gt 0 ]; then
    prepare
    targets=()
    for name in "${names[@]}"; do targets+=($(target "$name")); done
    build dev "${targets[@]:-interfaces}"
    run dev --no-tests=error -R "^($(IFS='|' && echo "${names[*]}"))\$"
    exit
fi

prepare abigail-tools clang-format doxygen git iproute2 make nftables openssl procps python3 python3-pyte ufw valgrind
scripts/countlines.sh
build dev
run dev
if [ -n "$sanitizers" ]; then
    # What needs no second look there: formats and documents, channels that leak on purpose.
    build dev-asan
    run dev-asan -LE 'style|heavy'
    # Only the tests in which threads meet; the sanitizer has no use for the others. Those that fork while they have
    # threads (tst_logwriter, the faults) are none of them: it does not survive that.
    build dev-tsan tst_cipserver tst_connectiondispatcher tst_foreignhost tst_fire tst_race
    run dev-tsan -L threads -E smallhost
fi
if [ -n "$long" ]; then
    prepare clang-14
    build dev-clang # the other compiler has to be content as well
    packaging/checkkit.sh . build/dev build/kit
    step "Counting instructions"
    build bench hotpaths
    cmake --build build/bench --target counts
    packaging/check.sh
fi
step "All tests passed"
