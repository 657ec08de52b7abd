#!/bin/sh
# apt-get remove leaves no failed unit of a service that has failed
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

directory=/run/systemd/system/quillon.service.d

put_back() {
    rm -rf "$directory"
    systemctl daemon-reload
    apt-get install --assume-yes /packages/*.deb </dev/null
}
trap put_back EXIT

begin_with_service
systemctl stop quillon.service
mkdir -p "$directory"
printf '[Service]\nExecStart=\nExecStart=/bin/false\nRestart=no\n' >"$directory/fails.conf"
systemctl daemon-reload
if systemctl start quillon.service; then
    fail "the service starts"
fi
expect "the state" failed "$(systemctl is-failed quillon.service || true)"
rm -rf "$directory"

apt-get remove --assume-yes quillon-service </dev/null
expect "failed units" "" "$(systemctl list-units --failed --plain --no-legend)"
