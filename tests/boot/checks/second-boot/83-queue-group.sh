#!/bin/sh
# the drop-in queue-group: only members of the group send commands, and nothing is left at the end
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

drop_in=$(dpkg -L quillon-service | grep '/queue-group\.conf$') || fail "there is no such drop-in"
directory=/etc/systemd/system/quillon.service.d

put_back() {
    rm -rf "$directory"
    systemctl daemon-reload
    systemctl stop quillon.service || true
    userdel boot-client 2>/dev/null || true
    groupdel quillon-clients 2>/dev/null || true
}
trap put_back EXIT

begin_with_service
as_user nobody quillonctl progress || fail "without the drop-in not everybody may ask"
systemctl stop quillon.service
groupadd --system quillon-clients
useradd --system --no-create-home --groups quillon-clients boot-client
install -D -m 644 "$drop_in" "$directory/queue-group.conf"
systemctl daemon-reload

systemctl start quillon.service || fail "the service does not start"
wait_until 20 is_ready || fail "the service is not ready"
for queue in fwupdateservice_usb fwupdatecontrol_usb; do
    expect "$queue" "root quillon-clients 660" "$(stat -c '%U %G %a' "/dev/mqueue/$queue")"
done
quillonctl progress || fail "root may not ask"
as_user boot-client quillonctl progress || fail "a member may not ask"
if as_user nobody quillonctl progress; then
    fail "a stranger may ask"
fi

systemctl stop quillon.service || fail "systemctl stop has status $?"
expect "the result" success "$(property quillon.service Result)"
expect "the queues" "" "$(ls -A /dev/mqueue)"
