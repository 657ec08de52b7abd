#!/bin/sh
# the drop-in quarantine moves a module away that ends the service at three starts in a row
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

drop_in=$(dpkg -L quillon-service | grep '/quarantine\.conf$') || fail "there is no such drop-in"
directory=/etc/systemd/system/quillon.service.d
quarantine=/usr/fwupdate/quarantine

put_back() {
    rm -rf "$directory" "$quarantine" "$controls/broken.so"
    systemctl daemon-reload
    systemctl reset-failed quillon.service || true
}
trap put_back EXIT

begin_with_service
install -D -m 644 "$drop_in" "$directory/quarantine.conf"
systemctl daemon-reload
systemctl stop quillon.service
# A copy that was cut off: who loads it dies of SIGBUS.
head -c 8192 "$device_directory/modules/tuner.so" >"$controls/broken.so"
chmod 755 "$controls/broken.so"
cursor=$(journal_now)
if systemctl start quillon.service; then
    fail "the service starts with a module that is cut off"
fi
wait_until 60 is_ready || fail "the service does not start without the module"

[ -e "$quarantine/broken.so" ] || fail "the module is not in quarantine"
[ ! -e "$controls/broken.so" ] || fail "the module is still in its place"
expect "how often the service was started again" 3 "$(property quillon.service NRestarts)"
journal_has 'the module broken, 2 of 3 times' --after-cursor="$cursor" -u quillon.service ||
    fail "the journal does not count"
journal_has "mv -n $quarantine/broken.so $controls/" --after-cursor="$cursor" -u quillon.service ||
    fail "the journal does not say how to put the module back"
systemctl status --no-pager quillon.service >"$device_directory/status" || fail "status $?"
grep -q 'Status: .*in quarantine: broken' "$device_directory/status" ||
    fail "systemctl status does not name the module: $(cat "$device_directory/status")"
quillonctl_status doctor >"$device_directory/doctor"
grep -q 'the module broken is in quarantine' "$device_directory/doctor" ||
    fail "doctor does not name the module: $(cat "$device_directory/doctor")"
if grep -q 'took the service down' "$device_directory/doctor"; then
    fail "doctor lists the module twice: $(cat "$device_directory/doctor")"
fi
