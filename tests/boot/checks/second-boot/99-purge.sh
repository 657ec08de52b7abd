#!/bin/sh
# apt-get purge leaves nothing behind: no file, user, queue, semaphore, unit or mount
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

# What this test itself has put on the device.
rm -rf "$controls"/*.so "$stick" /etc/quillon/examples
rmdir --ignore-fail-on-non-empty -p /opt/media 2>/dev/null || true

# A package that was downloaded before the removal, and one that is mounted, are to be cleared away.
[ -e "$packages/panelemp.img" ] || fail "the removal has taken a download away"
if [ -e /dev/loop-control ]; then
    mkdir -p "$packages/emps/left"
    mount -o loop,ro "$packages/panelemp.img" "$packages/emps/left"
fi

# What dpkg still knows of us, a package a line.
known() {
    dpkg-query --show --showformat='${db:Status-Status} ${Package}\n' 'quillon*' 2>/dev/null |
        sed -n '/^not-installed /!s/.* //p'
}

# shellcheck disable=SC2046  # a list of packages
apt-get purge --assume-yes $(known) </dev/null
expect "what dpkg knows" "" "$(known)"
if getent passwd quillon || getent group quillon; then
    fail "the user or group is still there"
fi
expect "units" "" "$(systemctl list-units --all --plain --no-legend 'quillon*')"
expect "unit files" "" "$(systemctl list-unit-files --no-legend 'quillon*')"
expect "queues" "" "$(ls -A /dev/mqueue)"
expect "semaphores" "" "$(find /dev/shm -iname '*update*' -o -iname '*quillon*')"
expect "mounts" "" "$(grep -i -e appbinarymanager -e quillon /proc/mounts || true)"
expect "what is left in /run and /tmp" "" \
    "$(find /run /tmp -iname '*quillon*' ! -path '/run/host/*' ! -path '/run/systemd/*' -o \
        -name '*fw_*' -o -name 'smack_early_ready' -o -iname '*fwupdate*')"

# The system's own records aside.
find / -xdev \( -path /boot-test -o -path /proc -o -path /sys -o -path /run -o -path /tmp -o \
    -path /var/lib/dpkg -o -path /var/lib/apt -o -path /var/lib/systemd/credential.secret -o \
    -path /var/lib/systemd/timers -o -path /var/backups -o -path /var/cache -o -path /var/log -o \
    -path '/var/tmp/systemd-private-*' \) -prune -o -print |
    sort >"$device_directory/files-after"
comm -13 "$device_directory/files-before" "$device_directory/files-after" >"$device_directory/files-new"
expect "what is left on the disk" "" "$(head -n 40 "$device_directory/files-new")"
