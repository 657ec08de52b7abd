#!/bin/sh
# apt-get remove ends the service in order and keeps settings and key
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
put_package panel 9.0 300000 3
removed=$(main_process)
apt-get remove --assume-yes quillon-service quillon-platform-linux quillon-tools quillon-dev \
    quillon-sticks </dev/null
[ ! -e "/proc/$removed" ] || fail "the service is still running"
expect "the queues" "" "$(ls -A /dev/mqueue)"
[ ! -e "$life_marker" ] || fail "the life marker is still there"
[ ! -e /usr/sbin/quillon-service ] || fail "the program is still there"
[ -e /var/lib/quillon/secure-storage/quillon.cred ] || fail "the key is gone already"
[ -e /etc/quillon/trusted-keys/boot-test.pem ] || fail "the maker's trusted key is gone"
journal_has 'firmware_main_task thread stop' -t FWUPDATE "_PID=$removed" ||
    fail "the service did not end by itself"
