# shellcheck shell=sh
# shellcheck disable=SC2034  # the checks use the names
# Words for the checks, which run on the booted device as root, each as a process of its own.

device_directory=/boot-test
stick=/opt/media/USBDriveA
packages=/opt/usr/apps/appbinarymanager
controls=/usr/fwupdate/controls
life_marker=/tmp/fw_update_ready_usb
labelling_marker=/tmp/smack_early_ready
ready_event=/tmp/.fw_service_ready_usb
# As long as the service may take to see that its life marker is gone, and some more.
stop_limit=15

fail() {
    echo "FAILED: $*"
    exit 1
}

# A line for the report, also when the check passes.
figure() { echo "figure: $*"; }

# Ends a check that this machine cannot make.
skip() {
    echo "skip: $*"
    exit 77
}

milliseconds() { echo $(($(date +%s%N) / 1000000)); }

# wait_until SECONDS COMMAND ...: until the command succeeds, asked ten times a second.
wait_until() {
    wait_end=$(($(milliseconds) + $1 * 1000))
    shift
    until "$@" >/dev/null 2>&1; do
        [ "$(milliseconds)" -lt "$wait_end" ] || return 1
        sleep 0.1
    done
}

property() { systemctl show --value --property="$2" "$1"; }

# expect WHAT EXPECTED ACTUAL
expect() { [ "$2" = "$3" ] || fail "$1 is '$3', not '$2'"; }

main_process() { property quillon.service MainPID; }

is_ready() {
    systemctl --quiet is-active quillon.service && [ -e "$ready_event" ] && [ -e "$life_marker" ]
}

is_ready_again() {
    is_ready && [ "$(main_process)" != "$1" ] && [ "$(main_process)" != 0 ]
}

# What is on the disk and does not change by itself.
list_files() {
    find / -xdev \( -path /boot-test -o -path /proc -o -path /sys -o -path /run \) -prune -o -print | sort
}

# What a module's maker needs besides our packages. A purge of those leaves it.
install_compiler() {
    ! command -v g++ >/dev/null || return 0
    list_files >"$device_directory/files-without"
    echo 'APT::Install-Recommends "false";' >/etc/apt/apt.conf.d/compiler
    # shellcheck disable=SC2046  # a list of packages
    apt-get install --assume-yes $(cat "$device_directory/compiler-packages") </dev/null
    # Also what is there already, in a directory of ours, and stays for another package.
    find /var/lib/dpkg/info -name '*.list' ! -name 'quillon-*' -exec cat {} + |
        sort -u - "$device_directory/files-before" >"$device_directory/files-known"
    list_files | comm -13 "$device_directory/files-without" - |
        sort -u -o "$device_directory/files-before" - "$device_directory/files-known"
}

# Every check begins with a service that runs, whatever the one before has left.
begin_with_service() {
    systemctl reset-failed quillon.service 2>/dev/null || true
    is_ready || systemctl start quillon.service || fail "the service does not start"
    wait_until 20 is_ready || fail "the service is not ready"
}

# as_service COMMAND ...: with the service's user and groups, and no right beyond theirs.
as_service() { as_user quillon "$@"; }

# as_user USER COMMAND ...
as_user() {
    as_user_name=$1
    shift
    systemd-run --quiet --pipe --wait --collect --property=User="$as_user_name" \
        --property=NoNewPrivileges=yes --setenv=LC_ALL=C.UTF-8 "$@" </dev/null
}

flashed() { echo "/var/lib/quillon/examples/$1"; }

# install_module NAME VERSION SPEED EXPECTED_TIME: an example module, running that version, which
# flashes SPEED bytes in a second.
install_module() {
    install -D -m 755 "$device_directory/modules/$1.so" "$controls/$1.so"
    install -d -o quillon -g quillon /var/lib/quillon/examples "$(flashed "$1")"
    rm -f "$(flashed "$1")/firmware.bin"
    echo "$2" | install -o quillon -g quillon -m 644 /dev/stdin "$(flashed "$1")/version"
    mkdir -p /etc/quillon/examples
    printf 'speed=%s\nexpected_time=%s\n' "$3" "$4" >"/etc/quillon/examples/$1.conf"
}

make_payload() { head -c "$2" /dev/urandom >"$device_directory/$1.payload"; }

# put_on_stick NAME VERSION BYTES
put_on_stick() {
    make_payload "$1" "$3"
    mkdir -p "$stick"
    quillon-image build --module "$1" --version "$2" --payload "$device_directory/$1.payload" \
        --key "$device_directory/keys/image-key.bin" --sign "$device_directory/keys/signing-key.pem" \
        --stick "$stick"
}

# put_package NAME VERSION BYTES EXPECTED_TIME
put_package() {
    make_payload "$1" "$3"
    quillon-image package --name "${1}emp" --version "$2" --payload "$device_directory/$1.payload" \
        --expected-time "$4" --output "$packages/${1}emp.img"
    chown quillon:quillon "$packages/${1}emp.img"
}

# holds_payload NAME VERSION: the component runs the version, byte for byte.
holds_payload() {
    expect "the version of $1" "$2" "$(cat "$(flashed "$1")/version")"
    cmp "$device_directory/$1.payload" "$(flashed "$1")/firmware.bin" || fail "$1 holds something else"
}

# What quillonctl says, and its exit status in $status.
quillonctl_status() {
    status=0
    quillonctl "$@" || status=$?
}

# journal_has EXPRESSION JOURNALCTL_ARGUMENT ...
journal_has() {
    journal_expression=$1
    shift
    journalctl --sync
    journalctl --boot --no-pager --quiet "$@" | grep -E -q -e "$journal_expression"
}

# A cursor to read the journal from.
journal_now() { journalctl --boot --lines=0 --show-cursor --quiet | sed -n 's/^-- cursor: //p'; }
