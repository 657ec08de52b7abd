#!/bin/sh
# what a hostile user puts at the names that clients and control layers share hinders none of them
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

semaphore=/dev/shm/sem.SEM_UPDATE_CONTROL
lock=/run/lock/quillon-client.lock
resume_event=/tmp/.ignore_resume
update_list=/tmp/fwupdate-off-list.txt

begin_with_service
expect "the lock" "root 666 regular empty file" "$(stat -c '%U %a %F' "$lock")"

systemctl stop quillon.service
rm -f "$semaphore" "$lock" "$resume_event" "$update_list"
as_user nobody sh -c "umask 0; : >$semaphore; mkfifo $lock; mkdir $resume_event; ln -s /etc/hostname $update_list"
systemctl start quillon.service || fail "the service does not start"
wait_until 20 is_ready || fail "the service is not ready"

expect "the lock" "root 666 regular empty file" "$(stat -c '%U %a %F' "$lock")"
expect "the semaphore" "quillon 600" "$(stat -c '%U %a' "$semaphore")"
[ ! -e "$resume_event" ] || fail "the event after an update counts as raised"
expect "the owner of its name" quillon "$(stat -c %U "$resume_event")"
[ ! -L "$update_list" ] || fail "a link stands at the update list"
[ -s /etc/hostname ] || fail "the file behind the link is empty"
quillonctl progress || fail "the service does not answer"
if [ -e /dev/loop-control ]; then
    install_module tuner 1.0 3000000 2
    put_package tuner 2.0 1000000 2
    as_service quillonctl modules update tuner || fail "a control layer cannot update"
    holds_payload tuner 2.0
fi
as_user nobody quillonctl progress || fail "another user's client cannot take its turn"

as_user nobody ln "$lock" "$lock.second" || fail "a user may not link the lock: adapt this check"
quillonctl progress || fail "the lock's second name locks root's client out"
as_user nobody quillonctl progress || fail "the lock's second name locks another user's client out"
rm -f "$lock.second"
