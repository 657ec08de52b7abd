#!/bin/sh
# an update from a stick, with a provisioned key, signed and enciphered images
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

for module in tuner panel clock; do
    install_module "$module" 1.0 3000000 2
done
put_on_stick tuner 2.0 3000000
put_on_stick panel 2.0 3000000
put_on_stick clock 1.0 1000
# The service looks for modules and for its key when it starts.
systemctl restart quillon.service
begin_with_service
journal_has 'decryption key load success' -t FWUPDATE "_PID=$(main_process)" ||
    fail "the service has no key"

start=$(milliseconds)
quillonctl_status update "$stick"
expect "the exit status" 0 "$status"
figure "two modules of 3 MB at 3 MB/s: $(($(milliseconds) - start)) ms"

holds_payload tuner 2.0
# Whoever belongs to the service may ask it as well as root.
as_service quillonctl progress || fail "the user quillon may not use quillonctl"

holds_payload panel 2.0
[ ! -e "$(flashed clock)/firmware.bin" ] || fail "the clock was flashed though it is up to date"
