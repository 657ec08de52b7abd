#!/bin/sh
# a hostile user's queues under the service's names do not hinder its start
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
systemctl stop quillon.service
for queue in fwupdateservice_usb fwupdatecontrol_usb; do
    as_user nobody sh -c "umask 077; : >/dev/mqueue/$queue" || fail "cannot make the queue"
done
systemctl start quillon.service || fail "the service does not start"
wait_until 20 is_ready || fail "the service is not ready"
for queue in fwupdateservice_usb fwupdatecontrol_usb; do
    expect "the owner of $queue" quillon "$(stat -c %U "/dev/mqueue/$queue")"
done
quillonctl progress || fail "the service does not answer"
