#!/bin/sh
# quillon-module check --confined finds a module as confined as the service, and as the tutorial tells
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

directory=/etc/systemd/system/quillon.service.d
work=$device_directory/confinement

put_back() {
    rm -rf "$directory" "$controls/probe.so"
    systemctl daemon-reload
}
trap put_back EXIT

# what_check_finds: what the module is told in the check's unit.
what_check_finds() {
    rm -f "$work/log"
    quillon-module check --confined "$work/probe.so" --filter version --log "$work/log" >/dev/null ||
        fail "the check has status $?"
    sed -n 's/^ *| probe: //p' "$work/log"
}

# what_service_finds: what it is told in the service's own.
what_service_finds() {
    systemctl restart quillon.service
    wait_until 20 is_ready || fail "the service is not ready"
    journalctl --sync
    journalctl --boot --quiet --output=cat "_PID=$(main_process)" | sed -n 's/^probe: //p'
}

begin_with_service
install_compiler
mkdir -p "$work"
# shellcheck disable=SC2046  # options
cc -Wall -D_GNU_SOURCE -fPIC -shared $(pkg-config --cflags quillon-plugin) -o "$work/probe.so" \
    "$device_directory/confined-probe.c"
install -m 755 "$work/probe.so" "$controls/"

start=$(milliseconds)
found=$(what_check_finds)
figure "a clause under confinement: $(($(milliseconds) - start)) ms"
expect "what the tutorial's table promises" "device ENOENT
state done
file EROFS
root's-directory EACCES
sysfs EROFS
home EACCES
proc ENOENT
root's-file EACCES
network EAFNOSUPPORT
netlink EAFNOSUPPORT
program EACCES
library EPERM
more-rights EPERM
write-and-execute EPERM
mount EPERM
clock EPERM
real-time EPERM
priority EPERM" "$found"
expect "what the module gets in the service" "$found" "$(what_service_finds)"

mkdir -p "$directory"
cat >"$directory/hardware.conf" <<END
[Service]
PrivateDevices=no
DevicePolicy=closed
DeviceAllow=/dev/net/tun rw
StandardError=journal
END
systemctl daemon-reload
opened=$(what_check_finds)
expect "the node with a drop-in" "device done" "$(echo "$opened" | head -n 1)"
expect "what the module gets in the service then" "$opened" "$(what_service_finds)"

expect "directories that are left in /run" "" "$(find /run -maxdepth 1 -name 'quillon-module-*')"
expect "units that are left" "" "$(systemctl list-units --all --plain --no-legend 'quillon-module-*')"
