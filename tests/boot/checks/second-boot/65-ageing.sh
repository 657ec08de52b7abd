#!/bin/sh
# ageing of /tmp never takes a marker, nor ends the service
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
process=$(main_process)
# Whatever the release's own rule for /tmp is, here one second is old.
mkdir -p /etc/tmpfiles.d
echo 'q /tmp 1777 root root 1s' >/etc/tmpfiles.d/tmp.conf
trap 'rm -f /etc/tmpfiles.d/tmp.conf' EXIT
touch /tmp/old-file-of-nobody
touch --date='60 days ago' /tmp/old-file-of-nobody "$labelling_marker" "$life_marker" "$ready_event"
sleep 2
systemd-tmpfiles --clean

[ ! -e /tmp/old-file-of-nobody ] || fail "ageing did not work at all"
for marker in "$labelling_marker" "$life_marker" "$ready_event"; do
    [ -e "$marker" ] || fail "$marker was removed"
done
sleep 11
is_ready || fail "the service has ended"
expect "the process" "$process" "$(main_process)"
