#!/bin/sh
# Installs the Debian packages given as arguments that are not installed yet (as root, with
# apt-get, without recommended packages). Packages installed here start no service: a package
# that ships a system daemon would otherwise start it, and it would stay running after the
# build. A policy-rc.d of the administrator's is left as it is.
set -e
missing=""
for package in "$@"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing="$missing $package"
    fi
done
[ -n "$missing" ] || exit 0

echo "Installing missing Debian packages:$missing"
if [ "$(id -u)" -ne 0 ]; then
    echo "Run as root to install:$missing" >&2
    exit 1
fi
export DEBIAN_FRONTEND=noninteractive
policy=/usr/sbin/policy-rc.d
madePolicy=""
if [ ! -e "$policy" ]; then
    printf '#!/bin/sh\n# Left by a TolvaCore build that was interrupted; safe to delete.\nexit 101\n' >"$policy"
    chmod 755 "$policy"
    madePolicy=1
fi
status=0
{ apt-get update -qq && apt-get install -y -qq --no-install-recommends $missing; } || status=$?
if [ -n "$madePolicy" ]; then
    rm -f "$policy"
fi
exit $status
