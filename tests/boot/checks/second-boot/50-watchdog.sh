#!/bin/sh
# a daemon that stands still is restarted by the watchdog within its time
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
margin=10
limit=$(($(property quillon.service WatchdogUSec | sed 's/s$//;s/^1min$/60/') + margin))
restarts=$(property quillon.service NRestarts)
frozen=$(main_process)
start=$(milliseconds)
kill -STOP "$frozen"
wait_until $((limit + 60)) is_ready_again "$frozen" || fail "the service does not come back"
took=$(($(milliseconds) - start))
figure "from SIGSTOP to READY again: $took ms, limit $limit s"

[ ! -e "/proc/$frozen" ] || fail "the frozen process is still there"
expect "the number of restarts" $((restarts + 1)) "$(property quillon.service NRestarts)"
journal_has 'Watchdog timeout' -u quillon.service || fail "the journal does not say why"
[ "$took" -le $((limit * 1000)) ] || fail "it took longer than $limit s"
