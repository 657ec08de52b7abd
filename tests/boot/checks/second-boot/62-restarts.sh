#!/bin/sh
# restarts by hand are not counted as failures, however many come in a row
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

directory=/run/systemd/system/quillon.service.d

put_back() {
    rm -rf "$directory"
    systemctl daemon-reload
    systemctl reset-failed quillon.service || true
}
trap put_back EXIT

begin_with_service
# Each restart waits for the orderly end, up to ten seconds: a low limit shows the same in fewer.
mkdir -p "$directory"
printf '[Unit]\nStartLimitBurst=2\n' >"$directory/limit.conf"
systemctl daemon-reload
systemctl reset-failed quillon.service || true
for restart in 1 2 3 4; do
    systemctl restart quillon.service || fail "restart $restart: $(property quillon.service Result)"
done
wait_until 20 is_ready || fail "the service is not ready"

# Ends that are failures still come to an end.
cursor=$(journal_now)
for _ in 1 2 3; do
    before=$(main_process)
    kill -KILL "$before"
    wait_until 60 sh -c "systemctl is-failed --quiet quillon.service ||
        { [ \"\$(systemctl show --value --property=MainPID quillon.service)\" != $before ] &&
            systemctl is-active --quiet quillon.service; }" ||
        fail "neither started again nor failed"
    if systemctl is-failed --quiet quillon.service; then
        break
    fi
done
expect "the state" failed "$(systemctl is-failed quillon.service || true)"
journal_has 'Start request repeated too quickly' --after-cursor="$cursor" -u quillon.service ||
    fail "the unit has not failed for its starts"
