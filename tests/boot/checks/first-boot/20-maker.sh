#!/bin/sh
# the maker's side: keys, a signed provisioning package, what the device trusts
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

keys=$device_directory/keys
quillon-image keygen "$keys"
install -D -m 644 "$keys/signing-key.pub.pem" /etc/quillon/trusted-keys/boot-test.pem
install -D -m 644 "$keys/provisioning-certificate.pem" \
    /etc/quillon/provisioning-certificates/boot-test.pem
quillon-image verify --certificates /etc/quillon/provisioning-certificates "$keys/00000066.bin"
install -D -m 640 -g quillon "$keys/00000066.bin" /usr/share/sdp/quillon-key/00000066.bin
