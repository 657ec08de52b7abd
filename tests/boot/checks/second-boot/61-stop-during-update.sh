#!/bin/sh
# systemctl stop during an update lets it finish, also when that takes longer than the watchdog waits
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

install_module tuner 1.0 100000 46
rm -rf "$stick"
put_on_stick tuner 2.0 4500000
begin_with_service

quillonctl update "$stick" >"$device_directory/update.log" 2>&1 &
update=$!
wait_until 30 grep -E '^[1-9][0-9]* %' "$device_directory/update.log" ||
    fail "the update does not begin: $(cat "$device_directory/update.log")"
start=$(milliseconds)
systemctl stop quillon.service || fail "systemctl stop has status $?"
figure "from systemctl stop during 45 s of flashing to the end: $(($(milliseconds) - start)) ms"

expect "the result" success "$(property quillon.service Result)"
expect "the exit status" 0 "$(property quillon.service ExecMainStatus)"
holds_payload tuner 2.0
expect "the queues" "" "$(ls -A /dev/mqueue)"
wait "$update" || true
