#!/usr/bin/env bash
# Plays a stranger who has got the kit: builds the examples against it in every way the documents tell,
# and runs them. Nothing of the source tree is used where the installed kit is to do.
#   checkkit.sh SOURCE BUILD WORK
set -euo pipefail
source=$1 build=$2 work=$3

rm -rf "$work"
mkdir -p "$work"
trap 'echo "failed in line $LINENO: $BASH_COMMAND" >&2' ERR
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
configure() {
    cmake -G Ninja -DCMAKE_BUILD_TYPE=Debug "$@" >"$work/log" 2>&1 || { cat "$work/log" >&2; return 1; }
}
make_all() {
    cmake --build "$1" ${2:+--target $2} -- -j2 >"$work/log" 2>&1 || { cat "$work/log" >&2; return 1; }
}

# run DIR: the small host talks through both channels, in an installation of its own.
run() {
    local home=$work/run
    rm -rf "$home"
    mkdir -p "$home/bin/channelPlugins"
    cp "$1/smallhost" "$moved/bin/abonent" "$home/bin"
    cp "$1/libloopback.so" "$moved/bin/channelPlugins/libtransportIp.so" "$home/bin/channelPlugins"
    local port=$((20000 + RANDOM % 10000))
    while (: >"/dev/tcp/127.0.0.1/$port") 2>/dev/null; do port=$((port + 1)); done
    "$home/bin/abonent" settings set port=$port >"$work/log"
    for channel in loopback transportIp; do
        "$home/bin/smallhost" "$home/bin/channelPlugins/lib$channel.so" $port >"$work/said" 2>&1 ||
            { echo "smallhost with $channel from $1: $?" >&2; cat "$work/said" >&2; return 1; }
        grep -q "Вызываем абонента 'Борис'" "$work/said"
    done
    grep -q "Установлено соединение с 'Анна'" "$work/said"
    [ -s "$home/settings/settings.ini" ] && ls "$home"/data/0/log/smallhost_*.log >/dev/null
}

# Shows the four entries and nothing else, keeps to its own symbols, stays in memory.
check_module() {
    [ "$(nm -D --defined-only "$1" | awk '{ print $3 }' | sort | xargs)" = "apiVersion deleteInstance initDebug instance" ]
    local flags
    flags=$(readelf -d "$1")
    grep -q SYMBOLIC <<<"$flags" && grep -q NODELETE <<<"$flags"
}

cmake --install "$build" --prefix "$work/first" >"$work/log"
mkdir "$work/elsewhere"
moved="$work/elsewhere/kit with blank"
mv "$work/first" "$moved"
examples="$moved/share/doc/ipchannel-dev/examples"
if grep -rIl -e "$work/first" -e "$build" "$moved"; then
    echo "These files of the kit name the place it was made in." >&2
    exit 1
fi

perl "$source/tests/kit/checkdocs.pl" "$moved/share/doc/ipchannel-dev"
[ "$(du -cb "$moved"/lib*/libipchannel-*.a "$moved"/lib*/*/libipchannel-*.a 2>/dev/null | awk 'END { print $1 }')" -lt 8000000 ]

step() { echo "== $*"; }

step find_package, installed and moved
configure -S "$examples" -B "$work/package" "-DCMAKE_PREFIX_PATH=$moved"
grep -q "ipChannel_DIR:PATH=$moved" "$work/package/CMakeCache.txt"
make_all "$work/package"
check_module "$work/package/libloopback.so"
run "$work/package"

step find_package, build tree
configure -S "$examples" -B "$work/tree" "-DipChannel_DIR=$build/cmake"
make_all "$work/tree"
run "$work/tree"

step find_package refuses another major version
if cmake -S "$examples" -B "$work/other" -G Ninja "-DCMAKE_PREFIX_PATH=$moved" -DwantedVersion=4 >"$work/log" 2>&1; then
    exit 1
fi
grep -q 'compatible with requested version' "$work/log" || { cat "$work/log" >&2; exit 1; }

# said TEXT: what CMake says of examples/CMakeLists.txt with other first lines; it has to refuse them.
step find_package and add_channel_kind explain what they cannot do
mkdir "$work/wrong"
cp -r "$examples"/loopback "$examples"/threadedkind.h "$work/wrong"
said() {
    printf 'cmake_minimum_required(VERSION 3.25)\nproject(wrong LANGUAGES CXX)\n%s\n' "$1" >"$work/wrong/CMakeLists.txt"
    cmake -S "$work/wrong" -B "$work/wrong/build" -G Ninja "-DCMAKE_PREFIX_PATH=$moved" >"$work/log" 2>&1
}
if said 'find_package(ipChannel 3 REQUIRED COMPONENTS common)'; then exit 1; fi
tr -s ' \n' ' ' <"$work/log" | grep -q 'ipChannel has no components; leave COMPONENTS out'
if said 'find_package(ipChannel 3 REQUIRED)
add_channel_kind(loopback SOURCES loopback/loopback.cpp LINK No::Such)'; then exit 1; fi
tr -s ' \n' ' ' <"$work/log" | grep -q 'Call find_package() of the package that brings it'
said 'find_package(ipChannel 3 REQUIRED)
add_channel_kind(loopback SOURCES loopback/loopback.cpp LINK Qt5::Network)'

step pkg-config
# make and pkg-config know no blanks in paths.
mv "$moved" "$work/elsewhere/kit"
moved="$work/elsewhere/kit"
pc=$(dirname "$(find "$moved" -name ipchannel-kind.pc)")
mkdir "$work/pc"
PKG_CONFIG_PATH=$pc make -s -C "$work/pc" -f "$moved/share/doc/ipchannel-dev/examples/Makefile"
check_module "$work/pc/libloopback.so"
check_module "$work/pc/libunixSocket.so"
run "$work/pc"

step add_subdirectory
mkdir "$work/outside"
cat >"$work/outside/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(outside LANGUAGES CXX)
enable_testing()
add_subdirectory("$source" ipChannel)
add_subdirectory("$source/examples" examples)
END
configure -S "$work/outside" -B "$work/added"
make_all "$work/added" "loopback smallhost transportIp"
check_module "$work/added/examples/libloopback.so"
[ -f "$work/added/ipChannel/bin/channelPlugins/libtransportIp.so" ]
run "$work/added/examples"
[ "$(ctest --test-dir "$work/added" -N | tail -1)" = "Total Tests: 0" ]
if cmake --build "$work/added" --target help | grep -E 'tst_|testSupport'; then exit 1; fi

step targets of the tree, with makefiles
cat >"$work/outside/CMakeLists.txt" <<END
cmake_minimum_required(VERSION 3.25)
project(inside LANGUAGES CXX)
add_subdirectory("$source" ipChannel EXCLUDE_FROM_ALL)
add_executable(smallhost "$source/examples/smallhost/main.cpp")
target_link_libraries(smallhost PRIVATE interfaces ipsettings common)
END
cmake -S "$work/outside" -B "$work/makefiles" -G "Unix Makefiles" >"$work/log" 2>&1 || { cat "$work/log" >&2; exit 1; }
make_all "$work/makefiles"

step the kit works in all ways
rm -rf "$work"
