#!/bin/sh
# an update by the control layer holds an inhibitor, seen by logind, and lets it go
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

[ -e /dev/loop-control ] || skip "this machine has no loop devices"
begin_with_service
install_module panel 5.0 1000000 3
put_package panel 6.0 3000000 3

inhibited() { systemd-inhibit --list --no-pager --no-legend | grep '^quillon '; }

# All three that an update wants to keep away.
inhibited_from_all() {
    for what in shutdown sleep idle; do
        inhibited | tr -s ' ' | grep -q " quillonctl \(.*:\)\?$what\(:.*\)\? .* block\$" || return 1
    done
}

if inhibited; then
    fail "there is an inhibitor before the update"
fi

as_service quillonctl modules update --all >"$device_directory/modules.log" 2>&1 &
update=$!
wait_until 20 inhibited_from_all ||
    fail "not inhibited during the update: $(cat "$device_directory/modules.log")"
holder=$(inhibited | awk 'NR == 1 {print $3}')
figure "inhibited by user $holder from $(inhibited | awk '{print $6}' | xargs)"
expect "the holder" quillon "$holder"

wait "$update" || fail "the update failed: $(cat "$device_directory/modules.log")"
holds_payload panel 6.0
if inhibited; then
    fail "the inhibitor is still there"
fi
