#!/bin/sh
# what a hostile user puts at the markers' and the queues' names neither hinders nor keeps the service
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

# hostile COMMAND: as a user who has nothing to do with the service.
hostile() { as_user nobody sh -c "$1"; }

# round NAME COMMAND: with what the command has laid out, the service starts and ends as ever.
round() {
    begin_with_service
    systemctl stop quillon.service
    rm -rf "$labelling_marker" "$life_marker" "$ready_event" /tmp/precious
    echo precious >/tmp/precious
    hostile "$2"
    systemctl start quillon.service || fail "$1: the service does not start"
    wait_until 20 is_ready || fail "$1: the service is not ready"
    expect "$1: the life marker's owner" "quillon regular empty file" \
        "$(stat -c '%U %F' "$life_marker")"
    hostile "rm -f $life_marker $labelling_marker" 2>/dev/null || true
    [ -e "$life_marker" ] || fail "$1: a stranger may end the service"
    [ -e "$labelling_marker" ] || fail "$1: a stranger may hold up the next start"
    quillonctl progress || fail "$1: the service does not answer"
    systemctl stop quillon.service || fail "$1: systemctl stop has status $?"
    expect "$1: the result" success "$(property quillon.service Result)"
    [ ! -e "$life_marker" ] || fail "$1: the life marker is still there"
    expect "$1: a file behind a link" precious "$(cat /tmp/precious)"
}

round files "touch $labelling_marker $life_marker $ready_event; chmod 000 $life_marker $ready_event"
round directories "mkdir -p $labelling_marker/x $life_marker/x $ready_event/x"
round links "ln -s /tmp/precious $labelling_marker; ln -s /tmp/precious $life_marker; ln -s /tmp/precious $ready_event"
begin_with_service
# A stranger's directories were put aside with what is in them, for the administrator to decide about.
rm -rf /tmp/.quillon-*
