#!/usr/bin/env bash
# Runs the example host against a freshly started local emulator: starts qxp-emulator on a
# free loopback port, runs facade_host (token, then one notification), shows what the
# emulator received, and stops the emulator.
set -euo pipefail
build_dir=${1:-build}
work=$(mktemp -d)
trap 'kill "${emu_pid:-}" 2>/dev/null || true; wait "${emu_pid:-}" 2>/dev/null || true; rm -rf "$work"' EXIT

"$build_dir/emulator/qxp-emulator" --port 0 >"$work/emulator.out" 2>&1 &
emu_pid=$!
for _ in $(seq 100); do
    grep -q '^QX_PLATFORM_CONFIG=' "$work/emulator.out" && break
    kill -0 "$emu_pid" 2>/dev/null || { cat "$work/emulator.out"; exit 1; }
    sleep 0.1
done
url=$(sed -n 's/^qxp-emulator listening on //p' "$work/emulator.out")
key=$(sed -n 's/.*"credentials":"\([^"]*\)".*/\1/p' "$work/emulator.out")
echo "emulator at $url"

# The example writes its debug log to C://logs//ZuLog.txt under its working directory.
mkdir -p "$work/C:/logs"
(cd "$work" && "$OLDPWD/$build_dir/examples/facade_host" "$url" "$key" demo.topic "hello from the demo")

echo "requests the emulator received:"
curl -fsS "$url/_emulator/requests" | grep -o '"method":"[A-Z]*","target":"[^"]*"' |
    sed 's/"method":"\([A-Z]*\)","target":"\([^"]*\)"/   \1 \2/'
echo "debug log:"
sed "s/^/   /" "$work/C:/logs/ZuLog.txt"
