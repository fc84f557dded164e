#!/usr/bin/env bash
# Installs the build tree into a scratch prefix, builds examples/ on its own against that
# prefix (find_package(TolvaCore)), starts the installed qxp-emulator and runs every example
# against it, checking what each prints.
#
#   run-examples.sh BUILD_DIR SOURCE_DIR WORK_DIR GENERATOR [SANITIZERS]
set -euo pipefail
build=$1 source=$2 work=$3 generator=$4 sanitize=${5:-}

rm -rf "$work"
mkdir -p "$work"
prefix=$work/prefix
cmake --install "$build" --prefix "$prefix" > "$work/install.log"

flags=()
if [ -n "$sanitize" ]; then
    flags=(-DCMAKE_CXX_FLAGS=-fsanitize=$sanitize -DCMAKE_EXE_LINKER_FLAGS=-fsanitize=$sanitize)
fi
cmake -S "$source/examples" -B "$work/examples" -G "$generator" \
    -DCMAKE_PREFIX_PATH="$prefix" "${flags[@]}" > "$work/configure.log"
cmake --build "$work/examples" > "$work/build.log"
bin=$work/examples

"$prefix/bin/qxp-emulator" --port 0 > "$work/emulator.out" 2>&1 &
emulator=$!
trap 'kill "$emulator" 2>/dev/null || true; wait "$emulator" 2>/dev/null || true' EXIT

# Waits (at most 10 s) until FILE holds TEXT.
await() {
    for _ in $(seq 200); do
        grep -q "$2" "$1" 2>/dev/null && return 0
        sleep 0.05
    done
    echo "FAIL: \"$2\" never appeared in $1:" >&2
    cat "$1" >&2
    return 1
}
# Runs an example (at most 60 s) and checks that its standard output holds TEXT.
expect() {
    local text=$1
    shift
    local out
    if ! out=$(timeout 60 "$@" 2> "$work/last.err"); then
        echo "FAIL: $* exited non-zero" >&2
        cat "$work/last.err" >&2
        exit 1
    fi
    if [[ "$out" != *"$text"* ]]; then
        echo "FAIL: $* printed \"$out\", expected \"$text\"" >&2
        exit 1
    fi
    echo "ok: $*"
}

await "$work/emulator.out" '^QX_PLATFORM_CONFIG='
QX_PLATFORM_CONFIG=$(sed -n "s/^QX_PLATFORM_CONFIG='\(.*\)'$/\1/p" "$work/emulator.out")
export QX_PLATFORM_CONFIG
url=$(sed -n 's/^qxp-emulator listening on //p' "$work/emulator.out")
key=$(sed -n 's/.*"credentials":"\([^"]*\)".*/\1/p' "$work/emulator.out")

expect "posted to example.topic" "$bin/post_notification" example.topic "hello"

timeout 60 "$bin/listen" example.listen 2 > "$work/listen.out" 2> "$work/listen.err" &
listener=$!
await "$work/listen.err" "listening on example.listen"
expect "posted" "$bin/post_notification" example.listen "first"
expect "posted" "$bin/post_notification" example.listen "second"
wait "$listener" || { echo "FAIL: listen exited non-zero" >&2; cat "$work/listen.err" >&2; exit 1; }
# The library prints a line of its own when it obtains a token; the mail lines are what count.
if [ "$(grep '^example.listen: ' "$work/listen.out")" != $'example.listen: first\nexample.listen: second' ]; then
    echo "FAIL: listen printed:" >&2
    cat "$work/listen.out" >&2
    exit 1
fi
echo "ok: listen"

expect "you asked: ping" "$bin/request_reply" ping
expect "unregistered" "$bin/register_service" 1
expect "verified; account " "$bin/verify_token"

# The facade's host. The facade pauses 7 s after making its API object, so the sanitizer
# builds, which run the facade's own tests, leave this one out.
if [ -z "$sanitize" ]; then
    mkdir -p "$work/facade/C:/logs"
    (cd "$work/facade" && expect "posted to $url" "$bin/facade_host" "$url" "$key" example.facade hi)
fi
echo "every example passed"
