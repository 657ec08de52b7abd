#!/bin/sh
# systemctl stop: the service's own end, status 0, no queue and no marker left
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
stopped=$(main_process)
start=$(milliseconds)
systemctl stop quillon.service || fail "systemctl stop has status $?"
took=$(($(milliseconds) - start))
figure "from systemctl stop to the end: $took ms"

expect "the result" success "$(property quillon.service Result)"
expect "the exit code" 1 "$(property quillon.service ExecMainCode)" # CLD_EXITED
expect "the exit status" 0 "$(property quillon.service ExecMainStatus)"
expect "the state" inactive "$(systemctl is-active quillon.service || true)"
[ ! -e "/proc/$stopped" ] || fail "the process is still there"
expect "the queues" "" "$(ls -A /dev/mqueue)"
[ ! -e "$life_marker" ] || fail "the life marker is still there"
[ "$took" -le $((stop_limit * 1000)) ] || fail "it took longer than $stop_limit s"
