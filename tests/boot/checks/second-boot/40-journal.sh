#!/bin/sh
# journal entries carry their fields, and the catalogue explains the errors
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
entry=$(journalctl --boot --no-pager --output=verbose --lines=1 -t FWUPDATE \
    CODE_FUNC=set_service_running_done) || fail "the entry is not found by its field"
echo "$entry"
for field in 'CODE_FILE=.*quillon-service\.cpp' 'CODE_FUNC=set_service_running_done' \
    'CODE_LINE=[0-9]+' 'PRIORITY=6' 'SYSLOG_IDENTIFIER=FWUPDATE' '_SYSTEMD_UNIT=quillon\.service' \
    'MESSAGE=.+'; do
    echo "$entry" | grep -E -q "^ *$field\$" || fail "the entry has no $field"
done

# The image that the check before this one has damaged.
error=$(journalctl --boot --no-pager --output=verbose --lines=1 -t FWUPDATE -p err \
    --grep='^Error: .*tuner\.bin is NOT signed') || fail "there is no such error"
echo "$error"
echo "$error" | grep -q '^ *PRIORITY=3$' || fail "the error has another priority"
id=$(echo "$error" | sed -n 's/^ *MESSAGE_ID=//p')
echo "$id" | grep -E -q '^[0-9a-f]{32}$' || fail "the error has no MESSAGE_ID"

journalctl --catalog --boot --no-pager --lines=1 "MESSAGE_ID=$id" >"$device_directory/explained.txt"
cat "$device_directory/explained.txt"
grep -q 'Subject: .' "$device_directory/explained.txt" || fail "the catalogue does not know the error"
expect "the length of the explanation" yes \
    "$([ "$(grep -c '^░░' "$device_directory/explained.txt")" -gt 4 ] && echo yes || echo no)"
if grep -E '@[A-Z_]+@' "$device_directory/explained.txt"; then
    fail "a field of the explanation was not filled in"
fi
figure "$(sed -n 's/.*\(Subject: .*\)/\1/p' "$device_directory/explained.txt")"

# A step that has succeeded says so, and the tick's lines are not kept.
step=$(journalctl --catalog --boot --no-pager --lines=1 -t FWUPDATE --grep='key load success') ||
    fail "there is no such step"
echo "$step" | grep -q 'Subject: A step of the service, and no error' ||
    fail "the catalogue does not explain the step"
if journalctl --boot --no-pager --quiet --lines=1 CODE_FUNC=notify_callback -p debug..debug | grep .; then
    fail "debug lines are kept"
fi
