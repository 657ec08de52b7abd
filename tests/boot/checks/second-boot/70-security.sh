#!/bin/sh
# systemd-analyze security: 0.4 at most for the service, 2.8 and 1.1 for the helpers
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

exposure() {
    systemd-analyze security --no-pager "$1" | sed -n 's/.*Overall exposure level for .*: \([0-9.]*\) .*/\1/p'
}

# at_most UNIT LIMIT
at_most() {
    level=$(exposure "$1")
    [ -n "$level" ] || fail "no exposure level of $1"
    figure "$1: $level, limit $2"
    awk "BEGIN { exit !($level <= $2) }" || too_much="$too_much $1"
}

too_much=""
at_most quillon.service 0.4
at_most quillon-privileged.service 2.8
at_most quillon-storage@0.service 1.1
[ -z "$too_much" ] || fail "more than allowed:$too_much"
