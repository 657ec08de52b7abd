#!/bin/sh
# switching the device off was the service's own, orderly end
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

said() { journalctl --boot=-1 --no-pager --quiet "$@" | grep -q .; }

said -t FWUPDATE --grep='firmware_main_task thread stop' || fail "the service did not end by itself"
if said -u quillon.service --grep='timed out|Killing|Failed with result'; then
    fail "the service was not waited for"
fi
