#!/usr/bin/env python3
"""The cases of the machine test, all in one boot. Started by run:

    cases.py WORK CONSOLE EXPRESSION
"""

import os
import re
import subprocess
import sys
import time

from machine import Failure, Machine, checksum

WORDS = r"""
place=/opt/media/USBDriveA
is_mounted() { grep -q " $1 " /proc/self/mounts; }
is_free() { ! [ -e "$1" ] && ! is_mounted "$1"; }
# The stick is where it belongs, and its service has done all that it does.
is_there() { is_mounted "$1" && systemctl --quiet is-active "$(service_at "$1")"; }
service_at() { echo "quillon-stick@$(readlink "/run/quillon/sticks/${1##*/}").service"; }
# Seldom enough to leave the emulated processors to what is waited for.
waits() {
    for _ in $(seq 200); do
        if "$@" >/dev/null 2>&1; then return; fi
        sleep 0.5
    done
    not_reached "$@"
}
not_reached() {
    echo "FAILED: not reached: $*"
    journalctl --boot --lines=60 --no-pager -o short-monotonic -t kernel -t systemd -t quillon-stick -t mount
    ls -l /opt/media /run/quillon/sticks
    exit 1
}
# Not -t: behind a cursor, journalctl leaves out the first line that matches.
said() { journal_has "quillon-stick\[[0-9]+\]: .*($1)" --after-cursor="$(cat /run/cursor)"; }
forget() { journalctl --sync; journal_now >/run/cursor; }
has_done_nothing() { [ -z "$(systemctl list-units --all --plain --no-legend 'quillon-stick-*.service')" ]; }
policy() { echo "action = $1" >/etc/quillon/sticks.conf; }
# Both components run an old version, and are flashed this fast, in bytes a second.
old_components() { for module in tuner panel; do install_module "$module" 1.0 "$1" 2; done; }
is_flashed() { (holds_payload tuner 2.0 && holds_payload panel 2.0); }
is_old() { [ "$(cat "$(flashed tuner)/version")" = 1.0 ] && [ "$(cat "$(flashed panel)/version")" = 1.0 ]; }
service_sees() { nsenter --target "$(main_process)" --mount test -e "$1"; }
nothing_left() {
    ! ls -d /opt/media/USBDriveA* && ! ls /run/quillon/sticks/* && ! grep /opt/media /proc/self/mounts &&
        [ -z "$(systemctl list-units --plain --no-legend --all 'opt-media-*')" ]
}
# A service that has failed is shown as long as its stick is plugged in.
no_stick() { [ -z "$(systemctl list-units --plain --no-legend --all 'quillon-stick@*')" ]; }
"""

FILE_SYSTEMS = ("vfat", "exfat", "ntfs", "ext4")
# Of the kernel's drivers; what NTFS needs runs as a program, which has no option for links.
OPTIONS = {"ro", "nodev", "nosuid", "noexec"}


def make_file_system(kind, image, megabytes=64):
    with open(image, "wb") as file:
        file.truncate(megabytes << 20)
    # The label is what a shell would take for a command, or for two words.
    program = {"vfat": ["mkfs.vfat", "-F", "32", "-n", "$(REBOOT)"],
               "exfat": ["mkfs.exfat", "-L", "$(reboot)"],
               "ntfs": ["mkntfs", "-q", "-Q", "-F", "-s", "512", "-p", "0", "-S", "63", "-H", "255",
                        "-L", "';reboot;'"],
               "ext4": ["mkfs.ext4", "-q", "-F", "-L", "../$(reboot)"],
               "ext2": ["mkfs.ext2", "-q", "-F"]}[kind]
    subprocess.run(program + [image], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if kind == "ext4":
        # The most that a stick could ask for.
        subprocess.run(["tune2fs", "-e", "panic", image], check=True, stdout=subprocess.DEVNULL)


def make_partitions(image, parts):
    """A disk whose partitions are copies of the images PARTS."""
    start = 2048
    table = ["label: dos"]
    with open(image, "wb") as disk:
        for part in parts:
            size = os.path.getsize(part)
            disk.seek(start * 512)
            with open(part, "rb") as file:
                while piece := file.read(1 << 20):
                    disk.write(piece) if piece.strip(b"\0") else disk.seek(len(piece), os.SEEK_CUR)
            table.append(f"start={start}, size={size // 512}, type=c")
            start += size // 512
        disk.truncate((start + 2048) * 512)
    subprocess.run(["sfdisk", "--quiet", "--no-reread", "--no-tell-kernel", "--wipe-partitions=never", image],
                   input="\n".join(table), text=True, check=True, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def damage(kind, image):
    """The file system is still recognized, and cannot be mounted."""
    with open(image, "r+b") as file:
        if kind == "ext4":  # the group descriptors, behind the superblock
            file.seek(1024 + 24)
            block = 1024 << int.from_bytes(file.read(4), "little")
            file.seek(max(block, 2048))
            file.write(b"\xff" * 1024)
        elif kind == "vfat":  # the cluster of the root directory
            file.seek(44)
            file.write(b"\xf0\xff\xff\x0f")
        elif kind == "exfat":  # the checksum of the boot region, and of its copy
            for sector in (11, 23):
                file.seek(sector * 512)
                file.write(b"\x5a" * 512)
        else:  # the record of the root directory
            file.seek(13)
            cluster = 512 * file.read(1)[0]
            file.seek(48)
            file.seek(int.from_bytes(file.read(8), "little") * cluster + 5 * 1024)
            file.write(b"\x5a" * 1024)


class Report:
    """TAP, with the times."""

    def __init__(self, expression):
        self._expression = expression
        self._number = 0
        self.failed = 0

    def case(self, title, body, *arguments, always=False):
        if not always and not re.search(self._expression, title):
            return
        self._number += 1
        start = time.monotonic()
        try:
            figure = body(*arguments)
            print(f"ok {self._number} - {title} # {time.monotonic() - start:.0f} s")
            if figure:
                print("\n".join(f"#   {line}" for line in figure.strip().splitlines()))
        except Failure as failure:
            self.failed += 1
            print(f"not ok {self._number} - {title}")
            print("\n".join(f"#   {line}" for line in str(failure).splitlines()))
        sys.stdout.flush()

    def end(self, seconds):
        print(f"1..{self._number}")
        print(f"# {self._number - self.failed} of {self._number} passed in {seconds:.0f} s")


class Cases:
    def __init__(self, work, console):
        self._work = work
        self._console = console
        self._machine = None
        self._plugged = {}
        self.sticks = {}
        self._sums = {}

    def image(self, name):
        return f"{self._work}/{name}.img"

    def make_sticks(self):
        for kind in FILE_SYSTEMS:
            make_file_system(kind, self.image(kind))
            make_file_system(kind, self.image(f"damaged-{kind}"))
            damage(kind, self.image(f"damaged-{kind}"))
        make_file_system("ext2", self.image("ext2"))
        with open(self.image("nothing"), "wb") as file:
            file.write(b"\x5a" * (8 << 20))

    def boot(self):
        start = time.monotonic()
        self._machine = Machine(self._work, self._console, [self.image(kind) for kind in FILE_SYSTEMS], WORDS)
        booted = time.monotonic() - start
        self.do("begin_with_service; journal_has 'decryption key load success' -t FWUPDATE || fail 'no key'")
        return f"from power on to the first command: {booted:.0f} s\n" + self.do(
            "systemd-analyze time | sed -n 1p")

    def fill(self):
        """By the machine itself, which has the drivers; the images are disks for it now."""
        for disk, kind in zip("bcde", FILE_SYSTEMS):
            driver = "ntfs-3g" if kind == "ntfs" else kind
            links = "ln -s /etc/passwd /mnt/link; mkfifo /mnt/fifo; mknod /mnt/null c 1 3" if kind == "ext4" else ":"
            self.do(f"mount -t {driver} /dev/vd{disk} /mnt; cp /boot-test/images/*.bin /mnt/; {links}; umount /mnt;"
                    f"blockdev --flushbufs /dev/vd{disk}; sync")
        self.do("old_components 3000000; systemctl restart quillon.service; begin_with_service")
        make_partitions(self.image("partitions"), [self.image("exfat"), self.image("ext4"), self.image("ext2")])

    def do(self, script):
        return self._machine.do(script)

    def plug(self, name, image=None):
        image = self.image(image or name)
        self._sums[name] = (image, checksum(image))
        self._machine.plug(name, image)

    def pull(self, name):
        """What was on the stick is on it still, bit by bit."""
        self._machine.pull(name)
        image, before = self._sums.pop(name)
        if checksum(image) != before:
            raise Failure(f"something was written to {name}")

    def begin(self, policy="none"):
        """Each case begins without a stick, whatever the one before has left."""
        for name in list(self._sums):
            try:
                self.pull(name)
            except Failure:
                pass
        self.do("waits nothing_left; waits no_stick; begin_with_service\n"
                f"old_components 3000000; forget; policy '{policy}'")

    def every_file_system(self, kind):
        self.begin()
        self.plug(kind)
        shown = self.do("waits is_there $place; grep \" $place \" /proc/self/mounts")
        missing = OPTIONS - set(shown.split()[3].split(","))
        if missing:
            raise Failure(f"without {missing}: {shown}")
        if kind == "ext4":
            self.do("! cat $place/link || fail 'a link is followed'; ! head -c 1 $place/null || fail 'a device'")
        self.do("service_sees $place/tuner.bin || fail 'the service does not see it'\n"
                "quillonctl_status check $place; expect 'the status of check' 0 $status; is_old || fail 'flashed'\n"
                "quillonctl_status update $place; expect 'the status of update' 0 $status; is_flashed")
        self.pull(kind)
        self.do("waits is_free $place; service_sees $place && fail 'the service still sees it'; waits nothing_left\n"
                "said 'USBDriveA is free again' || fail 'not in the journal'")
        return shown

    def partitions(self):
        self.begin()
        self.plug("partitions")
        self.do("waits is_there $place; waits is_there ${place}1\n"
                "waits said 'no file system that can be read here: ext2'\n"
                "! [ -e ${place}2 ] || fail 'the third is there, too'")
        self.pull("partitions")
        self.do("waits nothing_left")

    def two_sticks(self):
        """Both claim a place at the same moment; a place that is free again is the next one's."""
        self.begin()
        self.plug("ext4")
        self.plug("vfat")
        self.do("waits is_there $place; waits is_there ${place}1\n"
                "[ \"$(readlink /run/quillon/sticks/USBDriveA)\" != \"$(readlink /run/quillon/sticks/USBDriveA1)\" ]")
        first = "ext4" if " ext4 " in self.do("grep \" $place \" /proc/self/mounts") else "vfat"
        self.pull(first)
        self.do("waits is_free $place; is_mounted ${place}1")
        self.plug("exfat")
        self.do("waits is_there $place; grep -q \" $place exfat\" /proc/self/mounts")
        for name in list(self._sums):
            self.pull(name)
        self.do("waits nothing_left")

    def foreign_places(self):
        """A directory with files, a mount and a link are not touched; an empty directory is used."""
        self.begin()
        self.do("mkdir $place ${place}1 ${place}3; touch $place/file; mount -t tmpfs none ${place}1\n"
                "ln -s /etc ${place}2")
        self.plug("vfat")
        self.do("waits is_there ${place}3; [ -e $place/file ]; [ -L ${place}2 ]")
        self.pull("vfat")
        self.do("waits is_free ${place}3; rm -r $place ${place}2; umount ${place}1; rmdir ${place}1\n"
                "waits nothing_left")

    def open_file(self):
        self.begin()
        self.plug("vfat")
        self.do("waits is_there $place\n"
                "systemd-run --quiet --unit=reader sh -c \"exec 3<$place/tuner.bin; exec sleep inf\"\n"
                "reads() { ls -l /proc/$(property reader.service MainPID)/fd | grep -q tuner.bin; }; waits reads")
        self.pull("vfat")
        self.do("waits nothing_left; systemctl stop reader.service")
        self.plug("ext4")
        self.do("waits is_there $place")
        self.pull("ext4")
        self.do("waits nothing_left")

    def damaged(self, kind):
        self.begin("update")
        self.plug(f"damaged-{kind}")
        text = self.do("waits said 'is damaged'; waits nothing_left; is_old\n"
                       "journalctl -b -t quillon-stick -p err -o cat | grep 'is damaged' | tail -n 1")
        self.pull(f"damaged-{kind}")
        # The same port takes a sound one.
        self.plug("vfat")
        self.do("waits is_there $place; waits is_flashed")
        self.pull("vfat")
        self.do("waits nothing_left")
        return text

    def unreadable(self, image, text):
        self.begin("update")
        self.plug(image)
        self.do(f"waits said '{text}'; waits nothing_left")
        self.pull(image)

    def check_only(self):
        self.begin("check")
        self.plug("exfat")
        self.do("waits said 'needs an update'\n"
                "ended() { ! systemctl --quiet is-active quillon-stick-check@USBDriveA.service; }; waits ended\n"
                "is_old || fail 'it was flashed'; is_there $place")
        self.pull("exfat")

    def update_at_once(self):
        self.begin("update")
        self.plug("ntfs")
        self.do("waits is_flashed; waits said 'The update finished'")
        self.pull("ntfs")

    def no_policy(self):
        self.begin()
        self.do("rm /etc/quillon/sticks.conf")
        self.plug("vfat")
        self.do("waits is_there $place; is_old; has_done_nothing")
        self.pull("vfat")

    def broken_policy(self):
        self.begin("update\naction = $(reboot)")
        self.plug("vfat")
        self.do("waits said 'sticks.conf: line 2 is not understood'; waits is_there $place; is_old\n"
                "has_done_nothing")
        self.pull("vfat")

    def pulled_while_flashing(self):
        """The component that is being flashed gets all of its image; the other one gets its own when the
        stick is back, though the first update still runs then."""
        self.begin("update")
        self.do("old_components 30000")
        self.plug("vfat")
        self.do("flashing() { said 'Updating (tuner|panel)'; }; waits flashing")
        self.pull("vfat")
        self.do("waits is_free $place; if is_flashed; then fail 'both were flashed before'; fi\n"
                "sed -i 's/^speed=.*/speed=3000000/' /etc/quillon/examples/*.conf")
        self.plug("vfat")
        self.do("waits is_there $place; waits is_flashed; begin_with_service")
        self.pull("vfat")
        self.do("waits nothing_left")

    def refuses_names(self):
        self.begin()
        for name in ("../sda", "sda;reboot", "sd", "loop0", "sda1\n2"):
            self.do(f"status=0; /usr/libexec/quillon/quillon-stick mount '{name}' || status=$?\n"
                    "expect status 2 $status")

    def confinement(self):
        limits = {"quillon-stick@sda.service": 0.9, "quillon-stick-check@USBDriveA.service": 0.4,
                  "quillon-stick-update@USBDriveA.service": 0.4}
        figures = []
        for unit, limit in limits.items():
            text = self.do(f"systemd-analyze security --no-pager '{unit}' | grep 'Overall exposure'")
            level = float(re.search(r": ([0-9.]+) ", text).group(1))
            figures.append(f"{unit}: {level}, limit {limit}")
            if level > limit:
                raise Failure("\n".join(figures))
        return "\n".join(figures)

    def nothing_failed(self):
        self.begin()
        self.do("expect 'failed units' '' \"$(systemctl list-units --failed --plain --no-legend)\"")

    def switch_off(self):
        self._machine.switch_off()

    def destroy(self):
        if self._machine:
            self._machine.destroy()


def main(work, console, expression):
    start = time.monotonic()
    report = Report(expression)
    cases = Cases(work, console)
    try:
        cases.make_sticks()
        report.case("the machine boots, and the service has its key", cases.boot, always=True)
        if report.failed:
            return 1
        report.case("the sticks are filled", cases.fill, always=True)
        for kind in FILE_SYSTEMS:
            report.case(f"{kind}: plugged, mounted, checked, updated, pulled", cases.every_file_system, kind)
        report.case("a stick with partitions: each gets a place, one of a kind that is not listed none",
                    cases.partitions)
        report.case("two sticks at once get different places, and a free one is used again", cases.two_sticks)
        report.case("places that others use are left alone", cases.foreign_places)
        report.case("an open file keeps no place from becoming free", cases.open_file)
        for kind in FILE_SYSTEMS:
            report.case(f"a damaged {kind} is refused with the remedy", cases.damaged, kind)
        report.case("a file system that is not listed is refused", cases.unreadable, "ext2",
                    "no file system that can be read here: ext2")
        report.case("a stick with nothing on it is refused", cases.unreadable, "nothing",
                    "no file system that can be read here: none is known")
        report.case("without a policy, a stick is mounted only", cases.no_policy)
        report.case("policy check: checked, and not updated", cases.check_only)
        report.case("policy update: updated at once", cases.update_at_once)
        report.case("a policy that is not understood: nothing is done", cases.broken_policy)
        report.case("pulled while flashing, and put back", cases.pulled_while_flashing)
        report.case("names that are no stick's are refused", cases.refuses_names)
        report.case("the units are confined", cases.confinement)
        report.case("no unit has failed", cases.nothing_failed, always=True)
        report.case("the machine switches off by itself", cases.switch_off, always=True)
    finally:
        cases.destroy()
        report.end(time.monotonic() - start)
    return 1 if report.failed else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
