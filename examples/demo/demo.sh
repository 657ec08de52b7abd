#!/bin/sh
# A USB update from end to end with the real daemon, then an update from packages through the control
# layer. Runs inside a virtual device:
#     quillon-device run -- examples/demo/demo.sh BUILD_DIRECTORY
set -eu

build=$(cd "$1" && pwd)
bin=$build/bin
work=$(mktemp -d)
stick=/opt/media/USBDriveA
packages=/opt/usr/apps/appbinarymanager
shared=/opt/usr/share/sbox
daemon=""
helper=""

say() { printf '\n== %s\n' "$*"; }

fail() {
    echo "demo: $*" >&2
    for log in service helper modules; do
        [ -f "$work/$log.log" ] && tail -n 20 "$work/$log.log" >&2
    done
    exit 1
}

finish() {
    [ -n "$daemon" ] && kill "$daemon" 2>/dev/null
    [ -n "$helper" ] && kill "$helper" 2>/dev/null
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

# holds_payload MODULE VERSION
holds_payload() {
    cmp "$work/$1.payload" "$(flashed "$1")/firmware.bin" || fail "$1 differs"
    [ "$(cat "$(flashed "$1")/version")" = "$2" ] || fail "$1 has the wrong version"
    printf '   %-8s holds its payload: %s bytes, sha256 %s...\n' "$1" \
        "$(stat -c %s "$(flashed "$1")/firmware.bin")" \
        "$(sha256sum <"$work/$1.payload" | cut -c 1-16)"
}

may_loop_mount() {
    mkdir "$work/probe"
    mount -o ro,loop "$1" "$work/probe" 2>/dev/null && umount "$work/probe"
}

may_seal() {
    ! command -v systemd-creds >/dev/null ||
        printf probe | systemd-creds encrypt --name=probe - - >/dev/null 2>&1
}

say "A device: its keys, the signature verifier, four firmware modules at version 1.0"
"$bin/quillon-image" keygen "$work/keys"
install -D -m 644 "$work/keys/signing-key.pub.pem" /etc/quillon/trusted-keys/demo.pem
install -D -m 644 "$work/keys/provisioning-certificate.pem" \
    /etc/quillon/provisioning-certificates/demo.pem
install -D -m 600 "$work/keys/00000066.bin" /usr/share/sdp/quillon-key/00000066.bin
install -m 755 "$build/lib/libkUEPUser.so" /usr/lib/libkUEPUser.so
if ! may_seal; then
    echo "this machine cannot seal: the image key is put into the storage as it is"
    install -D -m 600 "$work/keys/image-key.bin" /var/lib/quillon/secure-storage/quillon
fi
for module in tuner panel camera clock EXT-selftest; do
    install -m 755 "$build/modules/$module.so" /usr/fwupdate/controls/
done
for module in tuner panel camera clock; do
    mkdir -p "$(flashed "$module")" /etc/quillon/examples
    echo 1.0 >"$(flashed "$module")/version"
    printf 'speed=1000000\nexpected_time=3\n' >"/etc/quillon/examples/$module.conf"
done

say "The service starts, and keeps records and a history"
mkdir -p /run/quillon/run /var/lib/quillon/history
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

say "quillonctl check $stick: what would be updated, and why not"
"$bin/quillonctl" check "$stick" || fail "the check failed"

say "quillonctl update $stick"
"$bin/quillonctl" update "$stick" || fail "the update failed"

say "Versions after"
versions

say "Byte for byte"
for module in tuner panel camera; do
    holds_payload "$module" 2.0
done
[ ! -e "$(flashed clock)/firmware.bin" ] || fail "the clock was flashed though it is up to date"
echo "   clock    was left alone: it is up to date"

say "quillonctl history"
"$bin/quillonctl" history --plot "$work/history.svg" || fail "the history cannot be read"
grep -q '</svg>' "$work/history.svg" || fail "the plot is not whole"
echo "   drawn as well, expected beside actual times: $(wc -c <"$work/history.svg") bytes of SVG"

say "The life marker is removed: the service ends by itself within 10 seconds"
rm /tmp/fw_update_ready_usb
status=0
wait "$daemon" || status=$?
daemon=""
[ "$status" = 0 ] || fail "the service ended with status $status"
echo "   ended with status 0"

say "Packages arrive: version 3.0 for three modules, 1.0 for the clock"
for module in tuner panel camera clock; do
    version=3.0
    [ "$module" = clock ] && version=1.0
    make_payload "$module" 3000000
    "$bin/quillon-image" package --name "${module}emp" --version "$version" \
        --payload "$work/$module.payload" --expected-time 3 --output "$packages/${module}emp.img"
done

source=package
if may_loop_mount "$packages/tuneremp.img"; then
    say "The privileged helper starts: it alone may mount"
    "$bin/quillon-privileged" >"$work/helper.log" 2>&1 &
    helper=$!
    for _ in $(seq 100); do
        [ -S /run/quillon/privileged.sock ] && break
        sleep 0.1
    done
    [ -S /run/quillon/privileged.sock ] || fail "the helper did not open its socket"
    echo "   ready, process $helper, socket /run/quillon/privileged.sock"
else
    say "This machine may not loop-mount: the shared area gets what is in the packages"
    source=shared
    for module in tuner panel camera clock; do
        unsquashfs -no-progress -quiet -d "$shared/$module" "$packages/${module}emp.img" >/dev/null
        echo "   $shared/$module"
    done
fi

say "quillonctl modules check --source $source"
"$bin/quillonctl" modules check --source "$source" 2>"$work/modules.log" || fail "the check failed"

say "quillonctl modules update --all --source $source"
"$bin/quillonctl" modules update --all --source "$source" 2>"$work/modules.log" ||
    fail "the update failed"

say "Versions after"
versions

say "Byte for byte"
for module in tuner panel camera; do
    holds_payload "$module" 3.0
done
if grep " $packages/" /proc/mounts; then
    fail "a package is still mounted"
fi
echo "   nothing is left mounted"
