#!/usr/bin/env bash
# Checks an installed tree as a user outside this project meets it: the installed programs and
# libraries run from a prefix that is not a system folder, without LD_LIBRARY_PATH; and a host
# built with pkg-config that uses only the platform library links and runs.
#
#   run-installed-checks.sh BUILD_DIR SOURCE_DIR WORK_DIR [SANITIZERS]
set -euo pipefail
build=$1 source=$2 work=$3 sanitize=${4:-}
rm -rf "$work"
mkdir -p "$work"
prefix=$work/opt/tolva
cmake --install "$build" --prefix "$prefix" > "$work/install.log"
unset LD_LIBRARY_PATH
fail() {
    echo "FAIL: $*" >&2
    exit 1
}

# Relative run paths: the libraries find each other, the programs find the libraries.
lib=$(dirname "$(find "$prefix" -name libTolvaCore.so.0 | head -1)")
readelf -d "$lib/libTolvaCore.so.0" | grep -q 'RUNPATH.*\$ORIGIN' ||
    fail "libTolvaCore.so.0 has no \$ORIGIN run path: $(readelf -d "$lib/libTolvaCore.so.0" | grep -i path)"
for program in tolva qxp-emulator; do
    [ -x "$prefix/bin/$program" ] || fail "$program is not installed"
    "$prefix/bin/$program" --help > "$work/$program-help.out" 2>&1 ||
        fail "$program --help: $(cat "$work/$program-help.out")"
done
echo "ok: installed programs run from $prefix"

# pkg-config.
export PKG_CONFIG_PATH=$lib/pkgconfig
pkg-config --exists tolvacore || fail "pkg-config does not find tolvacore in $PKG_CONFIG_PATH"
[ "$(pkg-config --modversion tolvacore)" = "$(sed -n 's/^Version: //p' "$lib/pkgconfig/tolvacore.pc")" ] ||
    fail "pkg-config version"
flags=()
[ -n "$sanitize" ] && flags=(-fsanitize="$sanitize")
# --as-needed keeps only the libraries the host itself uses: the platform library, which must
# then find the core library through its own run path.
# shellcheck disable=SC2046
c++ -std=c++17 "${flags[@]}" "$source/tests/package/platform_only.cpp" -o "$work/platform_only" \
    -Wl,--as-needed $(pkg-config --cflags --libs tolvacore) -Wl,-rpath,"$lib"
if readelf -d "$work/platform_only" | grep -q 'NEEDED.*libZuCore'; then
    fail "the host links libZuCore itself; the check needs a host that does not"
fi
out=$(cd "$work" && ./platform_only 2>&1) || fail "platform_only did not start or failed: $out"
# The library prints lines of its own when the token request fails; the last line is ours.
[ "$(tail -1 <<< "$out")" = "platform consumer ok" ] || fail "platform_only printed: $out"
echo "ok: a pkg-config host of the platform library alone runs from $prefix"
