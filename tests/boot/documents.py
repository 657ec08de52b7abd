#!/usr/bin/env python3
"""The commands of the documents, as checks for the booted device.

    documents.py SOURCE DIRECTORY

Makes a check DIRECTORY/NN-PAGE.sh of each page, which runs every command of the page in the page's
order, and DIRECTORY/needed, what apt needs for that. A command is run unless PAGES lists it with the
reason. A block is one of commands if it is fenced as sh or indented, unless PAGES lists it as text.
What stands fenced without a language right behind a block is held against what its commands say.
Whatever PAGES lists that is no longer on a page is an error.
"""
import dataclasses
import pathlib
import re
import shlex
import sys

# Who else runs a command. A file that is named first must be there.
COMPILES_ALL = "Makefile: make package and make demo compile the same, for minutes"
COMPONENTS = "tests/unit/examples/yocto-recipe-test.cmake installs each component of another build"
OWN_BUILD = "tests/release/device-build-test builds it"
EMULATED = "Makefile: make check-all runs it, where another machine can be emulated"
TOKEN = "tests/unit/tools/image-token-test.cpp does it with a token"
TRACED = "tests/system/trace-test.cpp reads the probe with gdb"
CI = ".ci/run runs it"
# With the status of "not downloaded": the device has no network.
NOT_DOWNLOADED = 14
# A device that has no keys yet.
ERRORS_FOUND = 21

@dataclasses.dataclass
class Page:
    """What to know of a page. Commands are named by their first line without its comment."""
    name: str
    # What blocks begin with that are no commands, indented ones and fenced ones without a language.
    text: tuple = ()
    # Commands that the device does not run, and why not.
    elsewhere: dict = dataclasses.field(default_factory=dict)
    # Whoever runs all fenced blocks.
    fenced: str = ""
    # What the reader has at hand: words for a shell that knows device.sh, before the command's block.
    before: dict = dataclasses.field(default_factory=dict)
    # Blocks by their first line that are files: their names.
    files: dict = dataclasses.field(default_factory=dict)
    # Exit statuses other than 0.
    ends: dict = dataclasses.field(default_factory=dict)
    # Commands whose blocks need loop devices.
    mounts: tuple = ()

PAGES = [
    Page("docs/integration.md",
         text=("IMAGE_INSTALL:append",),
         elsewhere={
             "make package": "Makefile: make system-test has done it before this device was booted",
             "make install DESTDIR=/path/to/root PREFIX=/usr": "Makefile: make check-all runs it",
             "cmake -S . -B build/image -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF"
             " -DCMAKE_INSTALL_PREFIX=/usr": COMPILES_ALL,
             "cmake --build build/image": COMPILES_ALL,
             "DESTDIR=/path/to/root cmake --install build/image --component service": COMPONENTS,
             "DESTDIR=/path/to/root cmake --install build/image --component platform": COMPONENTS,
             "quillon/packaging/install-dependencies": OWN_BUILD,
             "cmake -S quillon -B build-device -G Ninja -DBUILD_TESTING=OFF -DQUILLON_PLATFORM=device \\": OWN_BUILD,
             "cmake --build build-device": OWN_BUILD,
             "build-device/bin/quillon-device run -- sh try.sh": "tests/system/integration-page-test.cpp runs it",
             "DESTDIR=/path/to/root cmake --install build-device --prefix /usr --component service": OWN_BUILD,
             "DESTDIR=/path/to/root cmake --install build-device --prefix /usr --component platform": OWN_BUILD,
         },
         files={"set -e": "try.sh"},
         before={
             # What an image builder has by then.
             "systemd-sysusers --root=/path/to/root":
             "mkdir -p /path/to; for package in service platform-linux; do dpkg -x quillon-${package}_*.deb"
             " /path/to/root; done",
             # Nobody answers where there is no network, so one attempt does.
             "install -m 644 /usr/share/quillon/downloads.conf /etc/quillon/downloads.conf":
             "sed -i 's/^#attempts = .*/attempts = 1/' /usr/share/quillon/downloads.conf",
         },
         ends={"quillonctl doctor": ERRORS_FOUND,
               "runuser -u quillon -- quillonctl modules download": NOT_DOWNLOADED},
         mounts=("quillon-image package --name lampemp --version 2.0 --payload lamp/package/lamp.bin \\",)),
    Page("docs/operation.md",
         before={
             "quillonctl doctor":
             # The last section of the page before is for devices with a TPM, for which the start waits.
             "rm -rf /etc/systemd/system/quillon.service.d /etc/systemd/system/quillon-storage@.service.d;"
             " systemctl daemon-reload",
             "quillonctl modules check":
             "quillon-image package --name lampemp --version 3.0 --payload lamp/package/lamp.bin --expected-time 5"
             " --output $packages/lampemp.img",
         },
         mounts=("quillonctl modules check",)),
    Page("docs/packages.md",
         text=("Package: acme-platform",),
         elsewhere={
             "make package": CI,
             "make package ARCH=arm64": EMULATED,
             "make package-test ARCH=arm64": EMULATED,
         }),
    Page("docs/client.md",
         files={"#include <quillon/client.h>": "my-client.cpp"},
         before={
             "g++ -std=c++17 my-client.cpp $(pkg-config --cflags --libs quillon-client)":
             "apt-get install pkg-config",
             "cc -std=c11 -I/usr/include/quillon -o client /usr/share/quillon/client/client.c": "./a.out",
         }),
    Page("docs/control-layer.md",
         before={
             "quillonctl modules list":
             "install_module tuner 1.0 3000000 2; put_package tuner 2.0 30000 2",
         },
         ends={"quillonctl modules download": NOT_DOWNLOADED},
         mounts=("quillonctl modules list",)),
    Page("docs/troubleshooting.md",
         text=("error: the update semaphore is locked and nobody alive holds it: every update waits",)),
    Page("docs/trust.md",
         fenced="tests/unit/tools/image-trust-page-test.cpp",
         text=("# /etc/systemd/system/quillon.service.d/trust.conf",
               "libkUEPUser: /opt/media/USBDriveA/tuner.bin: not signed: no image is trusted:"),
         elsewhere={
             "quillon-image build --module tuner --version 2.1 --payload tuner-2.1 --key image-key.bin \\": TOKEN,
             "openssl pkey -engine pkcs11 -inform engine -in 'pkcs11:token=maker;object=signing' -pubout": TOKEN,
         }),
    Page("docs/image-format.md",
         fenced="tests/unit/tools/image-openssl-test.cpp",
         text=("libkUEPUser: /opt/media/USBDriveA/tuner.bin: not signed: trailer has no signature",
               "quillon-image: stick.json: modules[1] (panel):",
               "QUILLON-PROVISION 1",
               '{"version": "2.0", "crc": 3699738357, "expected_time": 120}'),
         before={
             "quillon-image package --name tunerempA1 --version 2.0 --payload tuner-2.0.bin --expected-time 120":
             "echo tuner >tuner-2.0.bin",
         }),
    Page("docs/platform.md",
         text=("FWUPDATE E quillon-service.cpp:",
               '# gdb -nx -batch -p "$(pidof quillon-service)" -x trace.gdb',
               "no /usr/bin/systemd-creds:",
               "WHO     UID USER",
               "logind gives no power lock,",
               "FWUPDATE[412]: decrption key is invalid"),
         elsewhere={
             'bpftrace -p "$(pidof quillon-service)" -e'
             " 'usdt:/usr/lib/x86_64-linux-gnu/libquillon-platform.so.0:quillon:log": TRACED,
             "journalctl -f -t FWUPDATE": "nothing ends it",
             "cmake -S . -B build -DQUILLON_PLATFORM=device"
             " -DQUILLON_PLATFORM_LIBRARY=/path/to/libdevice-platform.so": OWN_BUILD,
             "LD_PRELOAD=/path/to/libdevice-platform.so quillon-service":
             "tests/system/own-platform-test.cpp preloads it",
         },
         before={"quillon-image keygen keys": "mv keys first-keys"}),
    Page("README.md",
         text=("== A device: its keys,",),
         elsewhere={
             "make demo": CI,
             "make test": CI,
             "cmake -S . -B build && cmake --build build && ctest --test-dir build": COMPILES_ALL,
             "cmake -S . -B build -DQUILLON_PLATFORM=device"
             " -DQUILLON_PLATFORM_LIBRARY=/path/to/libyours.so": OWN_BUILD,
             "make package": CI,
         }),
]

@dataclasses.dataclass
class Block:
    line: int
    language: str  # "" is fenced without one, "indented" not fenced at all
    lines: list

def blocks_of(text):
    """The blocks of a page, in order."""
    blocks, gap = [], []
    fence, in_indented, ended = None, False, True
    for number, line in enumerate(text.split("\n"), 1):
        if fence is not None:
            if line.startswith("```"):
                fence = None
            else:
                fence.lines.append(line)
        elif line.startswith("```"):
            fence = Block(number + 1, line[3:], [])
            blocks.append(fence)
        elif line.startswith("    ") and (ended or in_indented):
            if not in_indented:
                blocks.append(Block(number, "indented", []))
            blocks[-1].lines += gap + [line[4:]]
            in_indented, gap = True, []
            continue
        elif not line and blocks and blocks[-1].language == "indented" and in_indented:
            gap.append(line)
            continue
        in_indented, gap, ended = False, [], not line
    return blocks

def commands_of(block):
    """Its commands, a list of lines each; what a command of several lines goes on with is one, too."""
    commands = []
    for line in block.lines:
        if commands and (commands[-1][-1].endswith("\\") or "".join(map(bare, commands[-1])).count("'") % 2):
            commands[-1].append(line)
        else:
            commands.append([line])
    return commands

def bare(line):
    """A line without its comment."""
    return re.sub(r"\s+# .*", "", line)

class Check:
    """The script of one page."""

    def __init__(self, source, page):
        self.page = page
        self.met = set()
        self.script = []
        self.needed = []
        blocks = blocks_of((source / page.name).read_text())
        for before, block, follower in zip([None] + blocks, blocks, blocks[1:] + [None]):
            self.add(before, block, follower)
        listed = set(page.text) | set(page.elsewhere) | set(page.before) | set(page.files) | set(page.ends)
        for left in sorted((listed | set(page.mounts)) - self.met):
            sys.exit(f"documents.py: {page.name} has no longer: {left}")
        for reason in [*page.elsewhere.values(), page.fenced]:
            file = re.match(r"\S*/[^\s:]*|Makefile|", reason)[0]
            if not (source / file).exists():
                sys.exit(f"documents.py: {page.name}: there is no longer: {file}")

    def take(self, table, name):
        """What a table has for a name, or None."""
        if name not in table:
            return None
        self.met.add(name)
        return table[name] if isinstance(table, dict) else name

    def add(self, before, block, follower):
        first = block.lines[0]
        name = self.take(self.page.files, first)
        if name:
            self.script.append(f"printf '%s\\n' {shlex.quote(chr(10).join(block.lines))} >/root/{name}")
            return
        for text in self.page.text:
            if block.language in ("", "indented") and first.startswith(text):
                self.met.add(text)
                return
        if not block.language and not (before and before.language == "sh" and follows(before, block)):
            sys.exit(f"documents.py: {self.page.name}:{block.line} is neither commands nor what they say: {first}")
        if block.language == "indented" or block.language in ("sh", "shell") and not self.page.fenced:
            self.add_commands(block, follower)

    def add_commands(self, block, follower):
        run, mounts = [], False
        for command in commands_of(block):
            name = bare(command[0])
            place = f"{self.page.name}:{block.line}"
            before = self.take(self.page.before, name)
            if before:
                self.script.append(f"prepare {shlex.quote(before)}")
            mounts = bool(self.take(self.page.mounts, name)) or mounts
            reason = self.take(self.page.elsewhere, name)
            if reason:
                self.script.append(f"figure {shlex.quote(f'not run here: {name}: {reason}')}")
                continue
            status = self.take(self.page.ends, name)
            if status:
                command[-1] = f"{bare(command[-1])} && exit 1 || [ $? = {status} ]"
            self.needed += re.findall(r"apt-get install (.*)", name + (before or ""))
            run += command
        if not run:
            return
        said = []
        if follower and not follower.language and follows(block, follower):
            said = follower.lines
        self.script.append(("mounting_" if mounts else "") + " ".join(
            ["block", place] + [shlex.quote("\n".join(lines)) for lines in (run, said)]))

    def text(self):
        return "\n".join([
            "#!/bin/sh",
            f"# {self.page.name}: its commands do what it says, in its order",
            "set -eu",
            ". /boot-test/device.sh",
            ". /boot-test/document.sh",
            *self.script, ""])

def follows(block, follower):
    """Whether only the ends of the fences and a blank line are between two blocks."""
    return follower.line - (block.line + len(block.lines)) == 3

def main():
    source, directory = (pathlib.Path(argument) for argument in sys.argv[1:3])
    directory.mkdir(parents=True)
    needed = set()
    for number, page in enumerate(PAGES, 1):
        check = Check(source, page)
        name = pathlib.Path(page.name).stem.lower()
        (directory / f"{number:02}-{name}.sh").write_text(check.text())
        needed.update(word for words in check.needed for word in words.split() if not word.startswith("./"))
    (directory / "needed").write_text("\n".join(sorted(needed)) + "\n")

if __name__ == "__main__":
    main()
