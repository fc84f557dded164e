#!/usr/bin/env bash
# Tries the README's two set-up commands as a new user would: makes a minimal Debian root file
# system with debootstrap (Debian 12, bookworm, unless --release names another, such as trixie),
# gives it the /etc/hosts of an installed system (localhost on 127.0.0.1 and ::1), clones this
# repository into it, runs the two commands (the first code block of README.md)
# there as root in a chroot, and reports pass or fail and the time of each. Then checks that the
# commands left no process running in the chroot and enabled no service to start at boot (a
# service of a package they installed).
#
#   scripts/try-fresh-debian.sh [--release NAME] [BRANCH] [DIR]
#
# BRANCH defaults to main; DIR (the root file system, reused when it is already there)
# defaults to /var/tmp/tolva-fresh-debian-NAME. Needs root, git, debootstrap (installed with
# apt-get when missing) and a Debian mirror (DEBIAN_MIRROR, default
# http://deb.debian.org/debian). Not part of CI: it downloads about 140 packages for the root
# and about 310 more for the build, and builds everything on its own.
set -euo pipefail

release=bookworm
if [ "${1:-}" = "--release" ]; then
    release=${2:?--release needs a name, such as bookworm or trixie}
    shift 2
fi
branch=${1:-main}
target=${2:-/var/tmp/tolva-fresh-debian-$release}
mirror=${DEBIAN_MIRROR:-http://deb.debian.org/debian}
repo=$(cd "$(dirname "$0")/.." && pwd)

if [ "$(id -u)" -ne 0 ]; then
    echo "run as root" >&2
    exit 2
fi
if ! command -v debootstrap >/dev/null 2>&1; then
    DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends debootstrap
fi

# The two commands, exactly as the README gives them.
mapfile -t commands < <(awk '/^```sh$/ {inside = 1; next} inside && /^```$/ {exit}
                             inside && NF {sub(/ +#.*$/, ""); print}' "$repo/README.md")
if [ "${#commands[@]}" -ne 2 ]; then
    echo "expected two commands in the README's first code block, found ${#commands[@]}" >&2
    exit 2
fi

if [ ! -x "$target/bin/bash" ]; then
    echo "== debootstrap --variant=minbase $release $target"
    debootstrap --variant=minbase "$release" "$target" "$mirror" >/dev/null
fi

mounted=()
cleanup() {
    for (( i=${#mounted[@]}-1; i>=0; i-- )); do
        umount -l "${mounted[$i]}" 2>/dev/null || true
    done
}
trap cleanup EXIT
for fs in proc sys dev dev/pts; do
    mkdir -p "$target/$fs"
    mount --bind "/$fs" "$target/$fs"
    mounted+=("$target/$fs")
done
cp /etc/resolv.conf "$target/etc/resolv.conf"
# debootstrap leaves the root without /etc/hosts, which every installed Debian system has (the
# installer writes it): without it "localhost" does not resolve. The root gets the loopback
# entries an installed system has, and nothing more, so the tests see what a real machine gives
# them. An /etc/hosts already there is left alone.
if [ ! -s "$target/etc/hosts" ]; then
    printf '127.0.0.1\tlocalhost\n::1\t\tlocalhost ip6-localhost ip6-loopback\n' > "$target/etc/hosts"
    echo "== wrote $target/etc/hosts: 127.0.0.1 localhost, ::1 localhost ip6-localhost ip6-loopback"
fi

rm -rf "$target/root/tolva"
git clone --quiet --branch "$branch" "$repo" "$target/root/tolva"

# Processes whose root directory is the chroot.
chrootProcesses() {
    local real
    real=$(readlink -f "$target")
    for root in /proc/[0-9]*/root; do
        if [ "$(readlink "$root" 2>/dev/null)" = "$real" ]; then
            local pid=${root#/proc/}
            pid=${pid%/root}
            echo "$pid $(tr '\0' ' ' < "/proc/$pid/cmdline" 2>/dev/null)"
        fi
    done
}

# Services enabled to start at boot, before and after the commands.
enabledServices() {
    find "$target/etc/systemd/system" -path '*.wants/*' 2>/dev/null | sed "s|^$target||" | sort
}
enabledBefore=$(enabledServices)
echo "== Debian $(cat "$target/etc/debian_version"), $(chroot "$target" dpkg-query -W -f='.\n' | wc -l) packages"

result=0
number=0
for command in "${commands[@]}"; do
    number=$((number + 1))
    echo "== $command"
    start=$(date +%s)
    if chroot "$target" /usr/bin/env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
        /bin/bash -c "cd /root/tolva && $command" > "$target/root/try-$number.log" 2>&1; then
        outcome=pass
    else
        outcome=FAIL
        result=1
    fi
    echo "   $outcome in $(( $(date +%s) - start )) s; $(chroot "$target" dpkg-query -W -f='.\n' | wc -l) packages installed now"
done

# A minimal root has no init: when a package pulls systemd in (chromium does, through
# dbus-user-session), systemd enables its own defaults (getty, remote-fs, ...), which every
# real machine already has. Anything else enabled is a service of a package the commands
# installed, and fails the run.
enabledByPackages=""
enabledBySystemd=""
while read -r link; do
    [ -n "$link" ] || continue
    owner=$(chroot "$target" dpkg -S "$(readlink "$target$link")" 2>/dev/null | cut -d: -f1)
    case "$owner" in
        systemd | systemd-sysv) enabledBySystemd="$enabledBySystemd $link" ;;
        *) enabledByPackages="$enabledByPackages $link ($owner)" ;;
    esac
done < <(comm -13 <(echo "$enabledBefore") <(enabledServices))
if [ -n "$enabledBySystemd" ]; then
    echo "== systemd's own defaults, enabled when it was installed:$enabledBySystemd"
fi
if [ -n "$enabledByPackages" ]; then
    echo "== services the commands enabled to start at boot:$enabledByPackages"
    result=1
else
    echo "== no service of an installed package enabled to start at boot"
fi

left=$(chrootProcesses)
if [ -n "$left" ]; then
    echo "== processes left running in the chroot:"
    echo "$left"
    result=1
else
    echo "== no process left running in the chroot"
fi
echo "== logs: $target/root/try-*.log"
exit $result
