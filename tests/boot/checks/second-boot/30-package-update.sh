#!/bin/sh
# an update from a package that the socket-activated helper mounts; who asks may not mount
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

[ -e /dev/loop-control ] || skip "this machine has no loop devices"
begin_with_service
install_module panel 1.0 3000000 2
put_package panel 5.0 3000000 2

systemctl stop quillon-privileged.service
expect "the helper" inactive "$(systemctl is-active quillon-privileged.service || true)"
expect "the helper's socket" active "$(systemctl is-active quillon-privileged.socket)"
expect "the socket's mode" "660 root quillon" "$(stat -c '%a %U %G' /run/quillon/privileged.sock)"
if as_service mount -o ro,loop "$packages/panelemp.img" /mnt 2>/dev/null; then
    fail "the service's user may mount"
fi

expect "the mount directory" "2770 root quillon" "$(stat -c '%a %U %G' "$packages/emps")"
if as_user nobody ls "$packages/emps" 2>/dev/null; then
    fail "a stranger could keep a mounted package busy"
fi

cursor=$(journal_now)
as_service quillonctl modules update panel || fail "the update failed with status $?"
holds_payload panel 5.0
expect "the helper" active "$(systemctl is-active quillon-privileged.service)"
journalctl --no-pager --after-cursor="$cursor" -t QUILLON-PRIVILEGED
journal_has '^.*mount \[-o .*panelemp\]: done' --after-cursor="$cursor" -t QUILLON-PRIVILEGED ||
    fail "the helper has not mounted anything"
if grep " $packages/" /proc/mounts; then
    fail "a package is still mounted"
fi
