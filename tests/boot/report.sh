# shellcheck shell=bash
# Tells how the checks end, as TAP. Sourced by run.
#
#   $work   this run's own directory

report_number=0
report_failed=0
report_started=$SECONDS

# report_check TITLE COMMAND ...: one line says how it ended. What the command has said is shown
# where it failed; lines that begin with "figure: " always are. Status 77 is a check that this
# machine cannot make.
report_check() {
    local title=$1 output=${work:?}/check.out status=0 start=$EPOCHSECONDS
    shift
    report_number=$((report_number + 1))
    "$@" >"$output" 2>&1 || status=$?
    case $status in
        0) echo "ok $report_number - $title" ;;
        77) echo "ok $report_number - $title # SKIP $(sed -n 's/^skip: //p' "$output")" ;;
        *) echo "not ok $report_number - $title" ;;
    esac
    if [ "$status" != 0 ] && [ "$status" != 77 ]; then
        report_failed=$((report_failed + 1))
        echo "#   status $status after $((EPOCHSECONDS - start)) s"
        sed 's/^/#   /' "$output"
        report_journal "$start"
        return 1
    fi
    sed -n 's/^figure: /#   /p' "$output"
}

# A step without which nothing can go on.
report_step() {
    report_check "$@" && return
    echo "Bail out! $1"
    exit 1
}

# What the device itself has to say since then.
report_journal() {
    if [ -n "$machine_init" ]; then
        echo "#   the device's journal:"
        machine_nsenter 10 journalctl --since="@$1" --no-pager --lines=60 --output=short-monotonic 2>&1 |
            sed 's/^/#     /'
    fi
}

report_skipped_all() {
    echo "1..0 # SKIP $1"
    echo "#"
    echo "# THE SYSTEM TEST DID NOT RUN: $1."
    echo "#"
}

report_end() {
    echo "1..$report_number"
    echo "# $((report_number - report_failed)) of $report_number passed in $((SECONDS - report_started)) s"
    [ "$report_failed" = 0 ]
}
