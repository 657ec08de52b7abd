#!/bin/sh
# the daemon runs as the user quillon, with no capability and no way to one
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
status=/proc/$(main_process)/status
id=$(id -u quillon)
[ "$id" != 0 ] || fail "the user quillon is root"

expect "the user" "$id $id $id $id" "$(awk '/^Uid:/ {print $2, $3, $4, $5}' "$status")"
for set in CapInh CapPrm CapEff CapBnd CapAmb; do
    expect "$set" 0000000000000000 "$(awk "/^$set:/ {print \$2}" "$status")"
done
expect NoNewPrivs 1 "$(awk '/^NoNewPrivs:/ {print $2}' "$status")"
