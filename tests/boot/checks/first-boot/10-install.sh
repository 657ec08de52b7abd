#!/bin/sh
# apt installs the packages with all that they need, and the service starts
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

# What they need comes first, so that what they bring themselves can be told from it.
apt-get install --simulate /packages/*.deb |
    sed -n 's/^Inst \([^ ]*\).*/\1/p' | grep -v '^quillon-' >"$device_directory/needed"
xargs apt-get install --assume-yes <"$device_directory/needed"
list_files >"$device_directory/files-before"

start=$(milliseconds)
apt-get install --assume-yes /packages/*.deb </dev/null >"$device_directory/install.log" 2>&1 ||
    fail "$(cat "$device_directory/install.log")"
figure "apt-get install of the packages alone: $(($(milliseconds) - start)) ms"
for package in quillon-service quillon-platform-linux quillon-tools quillon-dev quillon-doc \
    quillon-sticks; do
    expect "the state of $package" "install ok installed" \
        "$(dpkg-query --show --showformat='${Status}' "$package")"
done
expect "what dpkg says of all" "" "$(dpkg --audit)"

# Nothing was started before what it needs.
if grep 'Could not execute' "$device_directory/install.log"; then
    fail "the installation complains: $(cat "$device_directory/install.log")"
fi
expect "how often the storage's socket has failed" 0 \
    "$(journalctl --boot --quiet --unit quillon-storage.socket | grep -c Failed)"

wait_until 20 is_ready || fail "the service is not ready"
expect "failed units" "" "$(systemctl list-units --failed --plain --no-legend)"
