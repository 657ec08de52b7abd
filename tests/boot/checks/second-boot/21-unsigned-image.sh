#!/bin/sh
# an image with one changed bit is refused, and nothing is flashed
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

begin_with_service
install_module tuner 1.0 3000000 2
rm -rf "$stick"
put_on_stick tuner 3.0 100000
printf '\001' | dd of="$stick/tuner.bin" bs=1 seek=5000 conv=notrunc status=none
quillon-image verify --trusted /etc/quillon/trusted-keys "$stick/tuner.bin" && fail "the image verifies"

cursor=$(journal_now)
quillonctl_status update "$stick"
expect "the exit status" 7 "$status"
[ ! -e "$(flashed tuner)/firmware.bin" ] || fail "the tuner was flashed"
journal_has '^.*Error: .*tuner\.bin is NOT signed' --after-cursor="$cursor" -t FWUPDATE ||
    fail "the journal does not say why"
