# shellcheck shell=sh
# Words for the checks that documents.py makes. Sourced after device.sh.

# Where the reader of a page works: beside a checkout and the packages.
document_directory=/root
document_said=${device_directory:?}/said

# What every block of commands begins with. Journald takes what it is sent in its own time. The orderly
# end of the service, which other checks wait for, takes up to ten seconds for each restart.
# shellcheck disable=SC2016  # for the shell that runs the block
document_words='
journalctl() { command journalctl --sync && command journalctl "$@"; }
systemctl() {
    if [ "$*" = "restart quillon" ]; then
        command systemctl kill --signal=KILL quillon
        command systemctl reset-failed quillon
    fi
    command systemctl "$@"
}'

# prepare COMMANDS: what the reader has done before the next block.
prepare() {
    echo "-- $1"
    (cd "$document_directory" && eval "$1") </dev/null
}

# block PLACE COMMANDS SAID: the commands succeed. The lines of SAID, if any, are among what they say,
# in their order; numbers of seconds and of processes are not compared, nor widths of columns.
block() {
    echo "== $1 $(date +%T)"
    document_status=0
    (cd "$document_directory" && HOME=$document_directory DEBIAN_FRONTEND=noninteractive \
        bash -eu -o pipefail -c "$document_words
$2") >"$document_said" 2>&1 </dev/null || document_status=$?
    cat "$document_said"
    [ "$document_status" = 0 ] || fail "$1 has status $document_status: $2"
    [ -z "$3" ] || echo "$3" | document_compare || fail "$1 does not say all of: $3"
}

# The same where packages can be mounted. Loop devices belong to the whole machine, so the one whose node
# is here already may have been taken meanwhile.
mounting_block() {
    if [ -e /dev/loop-control ]; then
        for document_loop in 0 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15; do
            [ -e "/dev/loop$document_loop" ] || mknod -m 660 "/dev/loop$document_loop" b 7 "$document_loop"
        done
        block "$@"
    else
        figure "not run without loop devices: $1"
    fi
}

document_compare() {
    document_plain - >"$document_said.expected"
    document_plain "$document_said" | awk -v expected="$document_said.expected" '
        BEGIN { while ((getline line <expected) > 0) want[++lines] = line }
        met < lines && $0 == want[met + 1] { ++met }
        END { if (met < lines) print "missing: " want[met + 1]; exit met < lines }'
}

document_plain() {
    sed -E '/^Updating |^[0-9]+ % /d; s/[0-9]+ s\b/N s/g; s/\[[0-9]+\]/[N]/; s/ +/ /g; s/ $//' "$1"
}
