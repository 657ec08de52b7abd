#!/bin/sh
# a reinstallation and an upgrade leave a running service with its key
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

running_with_key() {
    wait_until 20 is_ready || fail "$1: the service is not ready"
    expect "$1: the result" success "$(property quillon.service Result)"
    journal_has 'decryption key load success' -t FWUPDATE "_PID=$(main_process)" ||
        fail "$1: the service has no key"
    expect "$1: the helper's socket" active "$(systemctl is-active quillon-privileged.socket)"
    expect "$1: the storage's socket" active "$(systemctl is-active quillon-storage.socket)"
}

begin_with_service
before=$(main_process)
apt-get install --reinstall --assume-yes /packages/*.deb </dev/null
running_with_key "reinstalled"
[ "$(main_process)" != "$before" ] || fail "the old program is still running"

# The same packages under the next version, as they will come from a repository one day.
mkdir "$device_directory/next"
for package in /packages/*.deb; do
    version=$(dpkg-deb --field "$package" Version)
    tree=$device_directory/next/tree
    dpkg-deb --raw-extract "$package" "$tree"
    sed -i "s/^Version: .*/Version: $version+next/;s/(= $version)/(= $version+next)/g" \
        "$tree/DEBIAN/control"
    dpkg-deb --build --root-owner-group -Znone "$tree" "$device_directory/next/$(basename "$package")" >/dev/null
    rm -rf "$tree"
done
before=$(main_process)
start=$(milliseconds)
apt-get install --assume-yes "$device_directory"/next/*.deb </dev/null
figure "an upgrade of all packages: $(($(milliseconds) - start)) ms"
expect "the version" "$version+next" "$(dpkg-query --show --showformat='${Version}' quillon-service)"
running_with_key "upgraded"
[ "$(main_process)" != "$before" ] || fail "the old program is still running"
