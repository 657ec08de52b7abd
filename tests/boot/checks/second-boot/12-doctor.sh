#!/bin/sh
# quillonctl doctor finds no fault of the packages, and names what only systemd knows
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

directory=/etc/systemd/system/quillon.service.d
report=$device_directory/doctor.json
socket=quillon-privileged.socket

put_back() {
    rm -rf "$directory"
    systemctl unmask --quiet "$socket"
    systemctl daemon-reload
    systemctl start "$socket"
    systemctl reset-failed quillon.service || true
}
trap put_back EXIT

# codes_are CODES STATUS COMMAND ...: what doctor finds, each code once, and its exit status. The
# command runs quillonctl as somebody.
codes_are() {
    codes_expected=$1
    status_expected=$2
    shift 2
    status=0
    "$@" quillonctl --json doctor >"$report" || status=$?
    cat "$report"
    expect "what doctor finds" "$codes_expected" "$(codes)"
    expect "doctor's exit status" "$status_expected" "$status"
}

codes() { sed -n 's/.*"code":"\([a-z-]*\)".*/\1/p' "$report" | sort -u | xargs; }

# names CODE STATUS REMEDY: root is told of this fault, whatever else there is because of it.
names() {
    status=0
    quillonctl --json doctor >"$report" || status=$?
    cat "$report"
    expect "doctor's exit status" "$2" "$status"
    grep -q "\"code\":\"$1\".*\"remedy\":\"[^\"]*$3" "$report" ||
        fail "doctor does not find $1 with the remedy $3"
}

# fails_with SETTINGS: the unit, with a program that fails at once, until systemd has given up.
fails_with() {
    systemctl stop quillon.service
    mkdir -p "$directory"
    printf '[Unit]\nStartLimitBurst=3\n[Service]\nExecStart=\nExecStart=/bin/false\n%s\n' "$1" \
        >"$directory/fails.conf"
    systemctl daemon-reload
    systemctl start quillon.service 2>/dev/null || true
    wait_until 60 has_given_up || fail "systemd goes on: $(systemctl status quillon.service)"
}

has_given_up() {
    systemctl --quiet is-failed quillon.service && [ "$(property quillon.service SubState)" = failed ]
}

begin_with_service
# Of what a device needs, the packages bring all but the modules.
codes_are modules-none 20 env
install_module tuner 1.0 3000000 2
systemctl restart quillon.service
begin_with_service
codes_are "" 0 env
codes_are "" 0 as_service
codes_are not-checked 0 as_user nobody
figure "not checked for an ordinary user: $(sed -n 's/.*"text":"not checked: \([^"]*\): needs root".*/\1/p' \
    "$report" | paste -sd ,)"

systemctl mask --quiet --now "$socket"
names unit-masked 20 "systemctl unmask $socket"
put_back
codes_are "" 0 env

fails_with Restart=no
names unit-failed 21 'systemctl restart quillon'
systemctl reset-failed quillon.service
fails_with RestartSec=100ms
names start-limit 21 'systemctl reset-failed quillon'

put_back
begin_with_service
codes_are "" 0 env
