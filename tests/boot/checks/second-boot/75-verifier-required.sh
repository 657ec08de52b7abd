#!/bin/sh
# the drop-in verifier-required refuses a start without the verifier or with keys that others can
# change, and says so
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

verifier=/usr/lib/libkUEPUser.so
drop_in=$(dpkg -L quillon-service | grep '/verifier-required\.conf$') || fail "there is no such drop-in"
directory=/etc/systemd/system/quillon.service.d
keys=/etc/quillon/trusted-keys

put_back() {
    rm -rf "$directory"
    chmod g-w "$keys"
    [ ! -e "$verifier.away" ] || mv "$verifier.away" "$verifier"
    systemctl daemon-reload
    systemctl reset-failed quillon.service || true
}
trap put_back EXIT

install -D -m 644 "$drop_in" "$directory/verifier-required.conf"
systemctl daemon-reload
begin_with_service
systemctl restart quillon.service
wait_until 20 is_ready || fail "the service is not ready with the drop-in"
main=$(systemctl show --property=MainPID --value quillon.service)
expect "the name of the main process" quillon-service "$(cat "/proc/$main/comm")"
grep -q " $verifier\$" "/proc/$main/maps" || fail "the verifier is not loaded at the start"
systemctl stop quillon.service
mv "$verifier" "$verifier.away"
cursor=$(journal_now)
if systemctl start quillon.service; then
    fail "the service starts without the verifier"
fi
wait_until 60 systemctl --quiet is-failed quillon.service ||
    fail "the unit does not count as failed: $(systemctl is-active quillon.service)"
journalctl --no-pager --after-cursor="$cursor" -u quillon.service
journal_has "$verifier" --after-cursor="$cursor" -u quillon.service ||
    fail "the journal does not name the verifier"
expect "the queues" "" "$(ls -A /dev/mqueue)"

mv "$verifier.away" "$verifier"
systemctl reset-failed quillon.service || true
systemctl start quillon.service || fail "the service does not start with the verifier"
wait_until 20 is_ready || fail "the service is not ready with the verifier"

systemctl stop quillon.service
chmod g+w "$keys"
cursor=$(journal_now)
if systemctl start quillon.service; then
    fail "the service starts with keys that others can change"
fi
systemctl stop quillon.service
journal_has "mend it: chmod go-w $keys" --after-cursor="$cursor" -u quillon.service ||
    fail "the journal does not say how to mend the mode of the keys"
chmod go-w "$keys"
systemctl reset-failed quillon.service || true
systemctl start quillon.service || fail "the service does not start with keys of root's alone"
wait_until 20 is_ready || fail "the service is not ready with keys of root's alone"
