#!/bin/sh
# SIGKILL during an update: restarted, and the next update succeeds
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

install_module tuner 1.0 500000 6
rm -rf "$stick"
put_on_stick tuner 2.0 3000000
begin_with_service

quillonctl update "$stick" >"$device_directory/update.log" 2>&1 &
update=$!
wait_until 30 grep -E '^[1-9][0-9]* %' "$device_directory/update.log" ||
    fail "the update does not begin: $(cat "$device_directory/update.log")"
killed=$(main_process)
start=$(milliseconds)
kill -KILL "$killed"
wait_until 60 is_ready_again "$killed" || fail "the service does not come back"
figure "from SIGKILL to READY again: $(($(milliseconds) - start)) ms"

status=0
wait "$update" || status=$?
cat "$device_directory/update.log"
[ "$status" != 0 ] || fail "quillonctl takes a killed update for a finished one"
expect "the version" 1.0 "$(cat "$(flashed tuner)/version")"
quillonctl history | grep -q ' tuner  *2\.0 .* cut off$' ||
    fail "the history does not tell of it: $(quillonctl history)"

echo 'speed=3000000' >/etc/quillon/examples/tuner.conf
quillonctl_status update "$stick"
expect "the next update's exit status" 0 "$status"
holds_payload tuner 2.0
