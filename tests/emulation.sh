# shellcheck shell=sh
# Foreign programs in a user namespace that says for itself what runs them: nothing is registered
# with the machine. Linux 6.7 and later can. Sourced.

# qemu_rule arm64|armhf [static]: what binfmt_misc is told. An emulator that is static runs in a root
# of the other machine as well.
qemu_rule() {
    case $1 in
        arm64)
            qemu_name=qemu-aarch64
            qemu_magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
            ;;
        armhf)
            qemu_name=qemu-arm
            qemu_magic='\x7fELF\x01\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\x28\x00'
            ;;
    esac
    # Any system interface, and both kinds of program: with a fixed address and without.
    qemu_mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'
    echo ":$qemu_name:M::$qemu_magic:$qemu_mask:$(command -v "$qemu_name${2:+-$2}"):PF"
}

# qemu_settings arm64|armhf
qemu_settings() {
    # The processor's own way of signing return addresses takes QEMU ten times as long.
    [ "$1" != arm64 ] || export QEMU_CPU=max,pauth-impdef=on
}

# in_user_namespace COMMAND...: inside, root is root; every user is itself, where whoever calls may
# say so. In a mount namespace of its own.
in_user_namespace() {
    if [ "$(id -u)" != 0 ]; then
        unshare --user --map-root-user --mount "$@"
        return
    fi
    namespace_scratch=$(mktemp -d)
    mkfifo "$namespace_scratch/started"
    {
        read -r namespace_process <"$namespace_scratch/started"
        echo 0 0 4294967295 >"/proc/$namespace_process/uid_map"
        echo 0 0 4294967295 >"/proc/$namespace_process/gid_map"
        rm -r "$namespace_scratch"
    } &
    # shellcheck disable=SC2016  # for the shells inside
    unshare --user sh -c '
        echo $$ >&9
        exec 9>&-
        until grep -q . /proc/self/gid_map; do sleep 0.01; done
        exec unshare --mount "$@"' - "$@" 9>"$namespace_scratch/started"
}

# emulated arm64|armhf COMMAND...: whoever runs a program of that architecture, in whatever root.
emulated() {
    qemu_settings "$1"
    emulated_rule=$(qemu_rule "$1" static)
    shift
    # shellcheck disable=SC2016  # for the shell inside
    in_user_namespace sh -c '
        mount -t binfmt_misc none /proc/sys/fs/binfmt_misc
        printf %s "$1" >/proc/sys/fs/binfmt_misc/register
        shift
        exec "$@"' - "$emulated_rule" "$@"
}
