# shellcheck shell=bash
# A Debian root and its life: made once, unpacked anew for each run, booted by systemd-nspawn with
# systemd as its first process, switched off. Sourced by run, which sets the variables below.
#
#   $here    this directory
#   $cache   kept between runs: the base root, downloaded archives
#   $work    this run's own: the root, the console's text
#   $suite   Debian's release

machine_root=${work:?}/root
machine_console=$work/console.log
machine_group=quillon-system-test.$$
: "${here:?}" "${cache:?}" "${suite:?}"
machine_nspawn=""
machine_init=""

# What of the machine below forbids booting a root; nothing when it can be done.
machine_obstacle() {
    if ! unshare --mount true 2>/dev/null; then
        echo "this machine allows no mount namespaces (no CAP_SYS_ADMIN)"
    elif ! machine_has_scopes &&
        ! unshare --mount sh -c 'mount -t cgroup2 none /sys/fs/cgroup' 2>/dev/null; then
        echo "this machine has no cgroup2 tree that may be mounted"
    elif ! unshare --net true 2>/dev/null; then
        echo "this machine allows no network namespaces"
    fi
}

# The sources that the machine itself takes the release from; none means mmdebstrap's own.
machine_sources() {
    grep -ls "\b$suite\b" /etc/apt/sources.list /etc/apt/sources.list.d/debian.sources || true
}

# Makes the base root unless the cache holds one of the same release and packages.
machine_base() {
    local key
    key=$({ echo "$suite"; cat "$here/base-packages"; } | sha256sum | cut -c 1-16)
    machine_tarball=$cache/base-$key.tar
    if [ -e "$machine_tarball" ]; then
        return
    fi
    rm -f "$cache"/base-*.tar
    # shellcheck disable=SC2046  # a list of files
    timeout 600 mmdebstrap --quiet --mode=root --variant=minbase \
        --include="$(paste -sd, "$here/base-packages")" --skip=cleanup/apt/lists \
        --format=tar "$suite" "$machine_tarball.part" $(machine_sources) || return
    mv "$machine_tarball.part" "$machine_tarball"
}

machine_unpack() {
    mkdir -p "$machine_root" && tar -C "$machine_root" --numeric-owner -xf "$machine_tarball"
}

# The machine's own apt, working on the root.
machine_apt() {
    timeout 300 apt-get -qq -o Dir="$machine_root" \
        -o Dir::State::status="$machine_root/var/lib/dpkg/status" \
        -o Dir::Etc::Trusted=/etc/apt/trusted.gpg -o Dir::Etc::TrustedParts=/etc/apt/trusted.gpg.d/ \
        -o Dir::Cache::archives="$cache/archives" "$@"
}

# Brings packages to the root, and into apt's cache there all that they need from the release: the
# device has no network.
machine_bring_packages() {
    mkdir -p "$machine_root/packages"
    cp "$@" "$machine_root/packages/"
    machine_download "$machine_root"/packages/*.deb
}

# What is downloaded already is not downloaded again.
machine_download() {
    mkdir -p "$cache/archives/partial"
    if ! machine_apt install --download-only --assume-yes "$@"; then
        machine_apt update && machine_apt install --download-only --assume-yes "$@" || return
    fi
    find "$cache/archives" -maxdepth 1 -name '*.deb' -exec cp -t "$machine_root/var/cache/apt/archives" {} +
}

# A machine whose own systemd has a pure cgroup2 tree gives the device a place in it.
machine_has_scopes() {
    [ -d /run/systemd/system ] && [ "$(stat -f -c %T /sys/fs/cgroup)" = cgroup2fs ]
}

# Elsewhere this runs in a mount namespace of its own: a pure cgroup2 tree covers what the machine
# has, since systemd does not boot in a hybrid one, and the device gets a group of its own there.
# What systemd-nspawn keeps in /run goes with the namespace.
machine_enter_group() {
    umount -R /sys/fs/cgroup 2>/dev/null
    mount -t cgroup2 none /sys/fs/cgroup && mkdir "/sys/fs/cgroup/$1" &&
        echo $$ >"/sys/fs/cgroup/$1/cgroup.procs" &&
        mkdir -p /run/systemd/nspawn && mount -t tmpfs none /run/systemd/nspawn
}

# Loop devices belong to the kernel that all share: the device gets the control node and makes the
# nodes that it needs. Should this test be killed, the device switches itself off.
machine_boot() {
    local options=(--quiet --directory="$machine_root" --machine="$machine_group" --boot
        --register=no --private-network --console=pipe --resolv-conf=off --link-journal=no)
    if [ -e /dev/loop-control ]; then
        options+=(--bind=/dev/loop-control)
    fi
    if machine_has_scopes; then
        setpriv --pdeathsig TERM systemd-nspawn "${options[@]}" </dev/null >>"$machine_console" 2>&1 &
    else
        export -f machine_enter_group
        # shellcheck disable=SC2016  # expanded by the inner shell
        setpriv --pdeathsig TERM \
            unshare --mount bash -c 'machine_enter_group "$1" && shift && exec systemd-nspawn "$@"' - \
            "$machine_group" --keep-unit "${options[@]}" </dev/null >>"$machine_console" 2>&1 &
    fi
    machine_nspawn=$!
    machine_find_init
    machine_wait_for_boot
}

# The first process of the device is the one that has the number 1 in its own namespace.
machine_find_init() {
    local status
    for _ in $(seq 300); do
        for status in $(machine_descendants "$machine_nspawn"); do
            if grep -qsE '^NSpid:.*[[:space:]]1$' "$status" &&
                [ "$(cat "${status%status}comm")" = systemd ]; then
                machine_init=${status#/proc/}
                machine_init=${machine_init%/status}
                return 0
            fi
        done
        kill -0 "$machine_nspawn" 2>/dev/null || return
        sleep 0.1
    done
}

machine_descendants() {
    local child
    tr ' ' '\n' 2>/dev/null <"/proc/$1/task/$1/children" | while read -r child; do
        echo "/proc/$child/status"
        machine_descendants "$child"
    done
}

machine_wait_for_boot() {
    local state
    for _ in $(seq 120); do
        kill -0 "$machine_nspawn" 2>/dev/null || break
        state=$(machine_nsenter 10 systemctl is-system-running 2>/dev/null)
        case $state in
            running | degraded) return 0 ;;
        esac
        sleep 0.5
    done
    echo "the device did not come up: ${state:-no answer}" >&2
    tail -n 20 "$machine_console" >&2
    return 1
}

# machine_nsenter SECONDS COMMAND ...: in the device's namespaces, yet no process of its systemd's.
# Waited for in the background, so that a signal to this test is not kept waiting as well.
machine_nsenter() {
    local seconds=$1
    shift
    timeout --kill-after=5 "$seconds" nsenter --target "$machine_init" --all --root --wd -- \
        env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin LC_ALL=C.UTF-8 "$@" </dev/null &
    wait $!
}

# machine_run SECONDS COMMAND ...: as a service of the device's own systemd, by root.
machine_run() {
    local seconds=$1
    shift
    machine_nsenter $((seconds + 15)) systemd-run --quiet --pipe --wait --collect \
        --property=RuntimeMaxSec="$seconds" --property=TimeoutStopSec=5 --setenv=LC_ALL=C.UTF-8 "$@"
}

machine_power_off() {
    machine_nsenter 10 systemctl --no-block poweroff
    if ! timeout 60 tail --pid="$machine_nspawn" -f /dev/null; then
        echo "the device did not switch off by itself" >&2
        machine_destroy
        return 1
    fi
    wait "$machine_nspawn" 2>/dev/null
    machine_nspawn=""
    machine_init=""
    machine_drop_group
}

# Ends whatever of the device is left, in any state.
machine_destroy() {
    local group
    for group in "/sys/fs/cgroup/$machine_group" "/sys/fs/cgroup/unified/$machine_group"; do
        if [ -e "$group/cgroup.kill" ]; then
            echo 1 >"$group/cgroup.kill"
        fi
    done
    if [ -n "$machine_nspawn" ]; then
        # shellcheck disable=SC2086  # no word where the first process is not known
        kill -KILL "$machine_nspawn" $machine_init 2>/dev/null
        wait "$machine_nspawn" 2>/dev/null
    fi
    machine_nspawn=""
    machine_init=""
    machine_drop_group
}

machine_drop_group() {
    local group
    for group in "/sys/fs/cgroup/$machine_group" "/sys/fs/cgroup/unified/$machine_group"; do
        for _ in $(seq 50); do
            [ -d "$group" ] || break
            find "$group" -depth -type d -exec rmdir {} + 2>/dev/null
            sleep 0.1
        done
    done
}
