#!/usr/bin/env bash
# Builds the Debian packages into build/package/*.deb.
#   packaging/build.sh [BUILD-DIRECTORY]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
. scripts/prepare.sh
prepare dpkg-dev fakeroot

directory=${1:-build/package}
step "Building the packages in $directory"
launcher=()
if command -v ccache >/dev/null; then launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache); fi
# Debian's own flags, the layout of a system's directories, and dates that do not depend on the clock.
export SOURCE_DATE_EPOCH
SOURCE_DATE_EPOCH=$(git log -1 --format=%ct 2>/dev/null || stat -c %Y CMakeLists.txt)
umask 022
cmake -S . -B "$directory" -G Ninja "${launcher[@]}" \
    -DCMAKE_BUILD_TYPE=None \
    -DCMAKE_CXX_FLAGS="$(dpkg-buildflags --get CXXFLAGS | sed 's/-ffile-prefix-map=[^ ]*//') $(dpkg-buildflags --get CPPFLAGS | sed 's|-Wdate-time||')" \
    -DCMAKE_EXE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS) -Wl,-z,now" \
    -DCMAKE_MODULE_LINKER_FLAGS="$(dpkg-buildflags --get LDFLAGS) -Wl,-z,now" \
    -DCMAKE_INSTALL_PREFIX=/usr \
    -DIPCHANNEL_HOME=lib/ipchannel \
    -DIPCHANNEL_STATE_DIR=/var/lib/ipchannel \
    -DIPCHANNEL_BUILD_TESTS=OFF
cmake --build "$directory"
rm -f "$directory"/*.deb
(cd "$directory" && cpack -G DEB)
