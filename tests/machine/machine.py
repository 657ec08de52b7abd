"""An emulated machine: QEMU, its monitor, the sticks in its USB ports, and a way to run commands on it."""

import base64
import hashlib
import json
import socket
import subprocess
import time

# Ends a test whose machine hangs; nothing is decided by it.
PATIENCE = 300


class Failure(Exception):
    """What was promised is not so; the text says what."""


class Machine:
    """Boots WORK/kernel with WORK/initrd from WORK/root.img. DISKS are images that it has as disks, too.
    Each script on it begins with WORDS."""

    def __init__(self, work, console, disks, words):
        self._work = work
        self._words = words
        self._console = console
        self._events = []
        command = [
            "setpriv", "--pdeathsig", "KILL", "qemu-system-x86_64", "-nodefaults", "-no-reboot", "-display", "none",
            "-machine", "q35", "-accel", "tcg,thread=multi", "-cpu", "max", "-smp", "2", "-m", "1024",
            "-kernel", f"{work}/kernel", "-initrd", f"{work}/initrd",
            "-append", "console=ttyS0 root=/dev/vda rw quiet mitigations=off",
            "-serial", f"file:{console}", "-qmp", f"unix:{work}/qmp,server=on,wait=off",
            "-object", "rng-random,id=rng,filename=/dev/urandom", "-device", "virtio-rng-pci,rng=rng",
            "-device", "virtio-serial-pci", "-chardev", f"socket,id=agent,path={work}/agent,server=on,wait=off",
            "-device", "virtserialport,chardev=agent,name=quillon-test",
            "-device", "qemu-xhci,id=usb,p2=8,p3=8",
            "-drive", f"file={work}/root.img,if=virtio,format=raw,cache=unsafe"]
        for disk in disks:
            command += ["-drive", f"file={disk},if=virtio,format=raw,file.locking=off"]
        self._qemu = subprocess.Popen(command, stdin=subprocess.DEVNULL)
        self._monitor = self._connect("qmp")
        self._wait_for_line(self._monitor)
        self.monitor("qmp_capabilities")
        self._agent = self._connect("agent")
        self._wait_for_line(self._agent)

    def _connect(self, name):
        end = time.monotonic() + PATIENCE
        while True:
            connection = socket.socket(socket.AF_UNIX)
            try:
                connection.connect(f"{self._work}/{name}")
                connection.settimeout(PATIENCE)
                return connection.makefile("rwb", buffering=0)
            except (FileNotFoundError, ConnectionRefusedError):
                connection.close()
                if self._qemu.poll() is not None or time.monotonic() > end:
                    raise Failure("the emulator does not start") from None
                time.sleep(0.05)

    def _wait_for_line(self, channel):
        try:
            line = channel.readline()
        except TimeoutError:
            raise Failure(f"the machine does not answer; its console is {self._console}") from None
        if not line:
            raise Failure(f"the machine has ended; its console is {self._console}")
        return line

    def monitor(self, command, **arguments):
        """Has the emulator do something; events that arrive meanwhile are kept."""
        self._monitor.write(json.dumps({"execute": command, "arguments": arguments}).encode() + b"\n")
        while True:
            answer = json.loads(self._wait_for_line(self._monitor))
            if "event" in answer:
                self._events.append(answer)
            elif "error" in answer:
                raise Failure(f"{command}: {answer['error']['desc']}")
            else:
                return answer["return"]

    def _wait_for_event(self, name, device):
        while True:
            for event in self._events:
                if event["event"] == name and event["data"].get("device") == device:
                    self._events.remove(event)
                    return
            answer = json.loads(self._wait_for_line(self._monitor))
            if "event" in answer:
                self._events.append(answer)

    def run(self, script):
        """Runs a shell script as root. Returns its exit status and what it has written."""
        self._send(f". /boot-test/device.sh\n{self._words}\nset -u\n{script}\n")
        status, _, output = self._wait_for_line(self._agent).partition(b" ")
        return int(status), base64.b64decode(output).decode(errors="replace")

    def _send(self, script):
        self._agent.write(base64.b64encode(script.encode()) + b"\n")

    def do(self, script):
        """As run, for a script that has to succeed. Returns what it has written."""
        status, output = self.run(f"set -e\n{script}")
        if status != 0:
            raise Failure(f"status {status} of:\n{script}\n{output}")
        return output

    def plug(self, name, image):
        self.monitor("blockdev-add", **{"driver": "raw", "node-name": name,
                                        "file": {"driver": "file", "filename": image, "locking": "off"}})
        self.monitor("device_add", driver="usb-storage", id=name, drive=name, bus="usb.0", removable=True)

    def pull(self, name):
        self.monitor("device_del", id=name)
        self._wait_for_event("DEVICE_DELETED", name)
        self.monitor("blockdev-del", **{"node-name": name})

    def switch_off(self):
        """By the machine itself, in order. It may be off before there is an answer."""
        self._send("systemctl --no-block poweroff")
        try:
            self._qemu.wait(PATIENCE)
        except subprocess.TimeoutExpired:
            raise Failure("the machine does not switch off") from None

    def destroy(self):
        self._qemu.kill()
        self._qemu.wait()


def checksum(path):
    with open(path, "rb") as file:
        return hashlib.file_digest(file, "sha256").hexdigest()
