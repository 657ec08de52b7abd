#!/bin/sh
# ready before multi-user.target, after a boot
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

wait_until 30 systemctl --quiet is-active multi-user.target || fail "multi-user.target is not reached"
systemctl --quiet is-active quillon.service || fail "the service is not active"

booted=$(systemctl show --value --property=UserspaceTimestampMonotonic)
started=$(property quillon.service InactiveExitTimestampMonotonic)
executed=$(property quillon.service ExecMainStartTimestampMonotonic)
ready=$(property quillon.service ActiveEnterTimestampMonotonic)
multi_user=$(property multi-user.target ActiveEnterTimestampMonotonic)
[ "$ready" -gt 0 ] || fail "no time of readiness"
[ "$ready" -lt "$multi_user" ] || fail "ready at $ready us, multi-user.target at $multi_user us"

expect "the number of restarts" 0 "$(property quillon.service NRestarts)"
expect "the unit's file state" enabled "$(systemctl is-enabled quillon.service)"
for path in "$ready_event" "$life_marker" "$labelling_marker" /dev/mqueue/fwupdateservice_usb \
    /dev/mqueue/fwupdatecontrol_usb; do
    [ -e "$path" ] || fail "$path is missing"
done

figure "from the daemon's start to READY: $(((ready - executed) / 1000)) ms"
figure "from the unit's start to READY: $(((ready - started) / 1000)) ms"
figure "from the first process to READY: $(((ready - booted) / 1000)) ms"
figure "from READY to multi-user.target: $(((multi_user - ready) / 1000)) ms"
