#!/bin/sh
# a module's maker follows the installed tutorial from the first command to the last
set -eu
# shellcheck source=../../device.sh
. /boot-test/device.sh

page=/usr/share/doc/quillon-doc/html/docs/module-tutorial.html
work=$device_directory/tutorial

# blocks LANGUAGE: the code of that language on the page, as somebody copies it.
blocks() {
    sed 's|</pre>|\n&|' "$page" | sed -n "/<pre class=\"sourceCode $1\">/,/<\/pre>/p" |
        sed -e 's/<[^>]*>//g' -e 's/&lt;/</g' -e 's/&gt;/>/g' -e 's/&quot;/"/g' -e "s/&#39;/'/g" -e 's/&amp;/\&/g'
}

put_back() {
    rm -rf /etc/systemd/system/quillon.service.d
    systemctl daemon-reload
}
trap put_back EXIT

# The maker's machine has no module and no stick yet.
rm -rf "$controls"/*.so "$stick"
begin_with_service
install_compiler
mkdir -p "$work"
cd "$work"
cp /packages/*.deb .
blocks c >siren.c
{ echo 'set -eux'; blocks sh; } >commands
[ -e /dev/loop-control ] || sed -i '/^runuser/d' commands
[ "$(wc -l <commands)" -gt 100 ] || fail "the page has few commands: $(cat commands)"

start=$(milliseconds)
sh commands >output 2>&1 </dev/null || fail "status $? of: $(cat output); $(journalctl -b -t QUILLON-PRIVILEGED)"
figure "the tutorial's $(grep -c '^[a-z]' commands) lines: $(($(milliseconds) - start)) ms"

# has LINE: the page shows it as output.
has() { grep -qx -e "$1" output || fail "no \"$1\" in: $(cat output)"; }
has '.*/siren.so: 42 kept, 0 broken, 2 not offered, 3 not checked'
has 'installed: 2.0'
has 'siren  0        no package'
has '/usr/fwupdate/controls/siren.so: 42 kept, 0 broken, 2 not offered, 3 not checked'
has '100% tests passed, 0 tests failed out of 2'
has 'gauge  1.0      no package.*'
if [ -e /dev/loop-control ]; then
    has 'siren  2.1      updated'
fi
if grep -q 'Skipped' output; then
    fail "a test of the template was skipped: $(cat output)"
fi
