#!/bin/sh
# A USB update from end to end with the real daemon. Runs inside a virtual device:
#     quillon-device run -- examples/demo/demo.sh BUILD_DIRECTORY
set -eu

build=$(cd "$1" && pwd)
bin=$build/bin
work=$(mktemp -d)
stick=/opt/media/USBDriveA
daemon=""

say() { printf '\n== %s\n' "$*"; }

fail() {
    echo "demo: $*" >&2
    [ -f "$work/service.log" ] && tail -n 20 "$work/service.log" >&2
    exit 1
}

finish() {
    [ -n "$daemon" ] && kill "$daemon" 2>/dev/null
    rm -rf "$work"
}
trap finish EXIT

flashed() { echo "/var/lib/quillon/examples/$1"; }

versions() {
    for module in tuner panel camera clock; do
        printf '   %-8s %s\n' "$module" "$(cat "$(flashed "$module")/version")"
    done
}

make_payload() { head -c "$2" /dev/urandom >"$work/$1.payload"; }

say "A device: its keys, the signature verifier, four firmware modules at version 1.0"
"$bin/quillon-image" keygen "$work/keys"
install -D -m 644 "$work/keys/signing-key.pub.pem" /etc/quillon/trusted-keys/demo.pem
install -D -m 600 "$work/keys/00000066.bin" /usr/share/sdp/quillon-key/00000066.bin
install -m 755 "$build/lib/libkUEPUser.so" /usr/lib/libkUEPUser.so
for module in tuner panel camera clock EXT-selftest; do
    install -m 755 "$build/modules/$module.so" /usr/fwupdate/controls/
done
for module in tuner panel camera clock; do
    mkdir -p "$(flashed "$module")" /etc/quillon/examples
    echo 1.0 >"$(flashed "$module")/version"
    printf 'speed=1000000\nexpected_time=3\n' >"/etc/quillon/examples/$module.conf"
done

say "The service starts"
touch /tmp/smack_early_ready /tmp/fw_update_ready_usb
"$bin/quillon-service" >"$work/service.log" 2>&1 &
daemon=$!
for _ in $(seq 100); do
    [ -e /tmp/.fw_service_ready_usb ] && break
    sleep 0.1
done
[ -e /tmp/.fw_service_ready_usb ] || fail "the service did not become ready"
echo "   ready, process $daemon, queues /fwupdateservice_usb and /fwupdatecontrol_usb"

say "A USB stick is plugged in: version 2.0 for three modules, 1.0 for the clock"
mkdir -p "$stick"
for module in tuner panel camera clock; do
    version=2.0
    [ "$module" = clock ] && version=1.0
    make_payload "$module" 3000000
    "$bin/quillon-image" build --module "$module" --version "$version" \
        --payload "$work/$module.payload" --key "$work/keys/image-key.bin" \
        --sign "$work/keys/signing-key.pem" --stick "$stick"
done

say "Versions before"
versions

say "quillonctl update $stick"
"$bin/quillonctl" update "$stick" || fail "the update failed"

say "Versions after"
versions

say "Byte for byte"
for module in tuner panel camera; do
    cmp "$work/$module.payload" "$(flashed "$module")/firmware.bin" || fail "$module differs"
    [ "$(cat "$(flashed "$module")/version")" = 2.0 ] || fail "$module has the wrong version"
    sum=$(sha256sum <"$work/$module.payload" | cut -c 1-16)
    printf '   %-8s holds its payload: %s bytes, sha256 %s...\n' "$module" \
        "$(stat -c %s "$(flashed "$module")/firmware.bin")" "$sum"
done
[ ! -e "$(flashed clock)/firmware.bin" ] || fail "the clock was flashed though it is up to date"
echo "   clock    was left alone: it is up to date"

say "The life marker is removed: the service ends by itself within 10 seconds"
rm /tmp/fw_update_ready_usb
status=0
wait "$daemon" || status=$?
daemon=""
[ "$status" = 0 ] || fail "the service ended with status $status"
echo "   ended with status 0"
