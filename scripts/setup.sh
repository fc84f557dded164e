#!/bin/sh
# The front door on a fresh Debian machine: installs make when it is missing (as root, with
# apt-get), then runs make with the given targets, which install the rest:
#
#   sh scripts/setup.sh demo    # build everything, run the tour of the library (tolva demo)
#   sh scripts/setup.sh test    # build everything, run every test
set -e
cd "$(dirname "$0")/.."
if ! command -v make >/dev/null 2>&1; then
    if [ "$(id -u)" -ne 0 ]; then
        echo "make is missing: run this as root to install it with apt-get" >&2
        exit 1
    fi
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends make
fi
exec make "$@"
