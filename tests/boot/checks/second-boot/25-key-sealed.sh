#!/bin/sh
# the image key on disk is sealed, for root only, and bound to its name
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

storage=/var/lib/quillon/secure-storage
sealed=$storage/quillon.cred
[ -f "$sealed" ] || fail "$sealed is missing: $(ls -A "$storage")"
expect "the storage's mode" "700 root" "$(stat -c '%a %U' "$storage")"
expect "the item's mode" "600 root" "$(stat -c '%a %U' "$sealed")"

# As bytes, as hexadecimal digits and as base64, nowhere below the service's state.
key=$device_directory/keys/image-key.bin
hex=$(od -An -v -tx1 "$key" | tr -d ' \n')
[ "${#hex}" -ge 32 ] || fail "the maker's key is too short"
find /var/lib/quillon /run/quillon -type f ! -path '*/examples/*' >"$device_directory/state-files"
grep -qx "$sealed" "$device_directory/state-files" || fail "the item was not looked at"
while read -r file; do
    if od -An -v -tx1 "$file" | tr -d ' \n' | grep -q -i "$hex" || grep -q -i "$hex" "$file" ||
        grep -q -F "$(base64 -w0 "$key" | cut -c 1-40)" "$file"; then
        fail "$file holds the plain key"
    fi
done <"$device_directory/state-files"

systemd-creds decrypt --name=quillon "$sealed" - | cmp - "$key" || fail "the item is not the key"
if systemd-creds decrypt --name=another "$sealed" /dev/null 2>/dev/null; then
    fail "the item can be read under another name"
fi
if as_service cat "$sealed" >/dev/null 2>&1; then
    fail "the service's user can read the item itself"
fi
group=$(getent group quillon | cut -d : -f 3)
if setpriv --reuid nobody --regid nogroup --groups "$group" test -w /run/quillon/storage.sock; then
    fail "a member of the group may ask for the item"
fi
