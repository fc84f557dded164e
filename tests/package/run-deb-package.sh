#!/usr/bin/env bash
# Makes the Debian package with CPack and checks what it holds and depends on. With
# TOLVA_TEST_DEB_INSTALL=1 (and root) it also installs the package, builds the find_package
# consumer against /usr, runs it and removes the package again; without it the machine is
# left as it is.
#
#   run-deb-package.sh BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR
set -euo pipefail
build=$1 source=$2 work=$3 generator=$4
command -v dpkg-deb > /dev/null || { echo "dpkg-deb is missing: skipped"; exit 77; }
rm -rf "$work"
mkdir -p "$work"
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

(cd "$build" && cpack -G DEB -B "$work" > "$work/cpack.log" 2>&1) ||
    fail "cpack: $(tail -20 "$work/cpack.log")"
deb=$(ls "$work"/tolvacore_*.deb)
info=$(dpkg-deb -I "$deb")
contents=$(dpkg-deb -c "$deb")
depends=$(dpkg-deb -f "$deb" Depends)
echo "package: $(basename "$deb")"
echo "depends: $depends"
for needed in libcpprest libboost-system libssl libspdlog libc6 libstdc++6; do
    [[ "$depends" == *"$needed"* ]] || fail "Depends lacks $needed: $depends"
done
for file in ./usr/bin/tolva ./usr/bin/qxp-emulator ./usr/lib/libTolvaCore.so.0 \
    ./usr/lib/libZuCore.so.0 ./usr/include/TolvaCore/QxPlatformApi.h \
    ./usr/include/ZuCore/Logger.h ./usr/lib/cmake/TolvaCore/TolvaCoreConfig.cmake \
    ./usr/lib/pkgconfig/tolvacore.pc; do
    grep -q " $file" <<< "$contents" || fail "the package lacks $file"
done
[[ "$info" == *"Package: tolvacore"* ]] || fail "package name: $info"
echo "ok: the package holds the libraries, headers, CMake and pkg-config files and both programs"

# The documentation, where Debian keeps a package's: the README, docs/, the emulator's README,
# every example's source and the CMakeLists.txt that builds them, and the API reference when
# Doxygen built it.
doc=./usr/share/doc/tolvacore
docs=("$doc/README.md" "$doc/docs/threads.md" "$doc/emulator/README.md"
    "$doc/examples/CMakeLists.txt")
for example in "$source"/examples/*.cpp; do
    docs+=("$doc/examples/$(basename "$example")")
done
[ -f "$build/docs/package/html/index.html" ] && docs+=("$doc/html/index.html")
for file in "${docs[@]}"; do
    grep -q " $file\$" <<< "$contents" || fail "the package lacks $file"
done
echo "ok: the package holds its documentation in /usr/share/doc/tolvacore (${#docs[@]} files checked)"

if [ "${TOLVA_TEST_DEB_INSTALL:-0}" != 1 ]; then
    echo "installation not tried (set TOLVA_TEST_DEB_INSTALL=1 to install, use and remove it)"
    exit 0
fi
[ "$(id -u)" = 0 ] || { echo "installing needs root: skipped"; exit 77; }
trap 'DEBIAN_FRONTEND=noninteractive apt-get purge -y -qq tolvacore > /dev/null 2>&1 || true' EXIT
DEBIAN_FRONTEND=noninteractive apt-get install -y -qq "$deb" > "$work/apt.log" 2>&1 ||
    fail "apt-get install: $(tail -20 "$work/apt.log")"
cmake -S "$source/tests/package/consumer" -B "$work/consumer" -G "$generator" \
    -DCMAKE_PREFIX_PATH=/usr > "$work/consumer.log" 2>&1 || fail "configure: $(cat "$work/consumer.log")"
cmake --build "$work/consumer" >> "$work/consumer.log" 2>&1 || fail "build: $(cat "$work/consumer.log")"
out=$("$work/consumer/tolva_consumer") || fail "the consumer failed"
[[ "$out" == *"consumer ok"* ]] || fail "the consumer printed: $out"
/usr/bin/tolva --help > /dev/null || fail "the installed tolva does not run"
echo "ok: installed, a consumer built with find_package against /usr runs, removed again"
