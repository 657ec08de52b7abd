#!/bin/sh
# a service that a module has ended with status 0 is started again, and the journal says why
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

directory=/etc/systemd/system/quillon.service.d

put_back() {
    rm -rf "$directory"
    systemctl daemon-reload
    systemctl reset-failed quillon.service || true
}
trap put_back EXIT

has_restarted() { [ "$(property quillon.service NRestarts)" -ge 1 ]; }

begin_with_service
systemctl stop quillon.service
expect "how often it was started again" 0 "$(property quillon.service NRestarts)"
cursor=$(journal_now)
# A daemon that becomes ready and then ends as if a module had called exit(0): its marker stays.
mkdir -p "$directory"
cat >"$directory/exits.conf" <<'END'
[Service]
NotifyAccess=all
ExecStart=
ExecStart=/bin/sh -c 'systemd-notify --ready; sleep 1; exit 0'
END
systemctl daemon-reload
systemctl start quillon.service || fail "the service does not start"
wait_until 60 has_restarted || fail "it was not started again: $(property quillon.service Result)"
journal_has 'a module has called exit\(\)' --after-cursor="$cursor" -u quillon.service ||
    fail "the journal does not say why"

# The one that is starting now is still such a daemon.
put_back
systemctl stop quillon.service || true
begin_with_service
systemctl stop quillon.service || fail "systemctl stop has status $?"
expect "the result of an orderly end" success "$(property quillon.service Result)"
expect "the state after it" inactive "$(systemctl is-active quillon.service || true)"
