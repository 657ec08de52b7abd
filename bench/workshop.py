"""The maker's side: images as they lie on a stick, verifiers, a slow stick, and another program's images."""
import contextlib
import importlib.util
import mmap
import os
import pathlib
import shutil
import tempfile
import threading
import time
import random  # and not hashlib, since we must not share OpenSSL with the service: its memory is measured
from statistics import median

import device
from device import BenchError, Taken, run

MIB = 1 << 20
VERIFIER = "/usr/lib/libkUEPUser.so"
SWUPDATE_KEY, SWUPDATE_IV = "00112233445566778899aabbccddeeff" * 2, "0102030405060708090a0b0c0d0e0f10"
SWUPDATE_TARGET = "/opt/media/swupdate-target"  # in memory, as the target of our service

class Workshop:
    """Makes images within a virtual device, below the build directory, until the end of the `with` block. That is on a
    disk's file system as a rule: a device's own directories are in memory, where reading a file is slower."""

    def __init__(self, build: str) -> None:
        device.require_device()
        self.build, self.directory = build, tempfile.mkdtemp(prefix="data-", dir=build + "/bench")
        pathlib.Path(self.directory, "image-key.bin").write_text(device.IMAGE_KEY)
        run(build + "/bin/quillon-image", "keygen", self.directory + "/keys")
        trusted = pathlib.Path("/etc/quillon/trusted-keys/bench.pem")
        trusted.parent.mkdir(parents=True, exist_ok=True)
        shutil.copyfile(self.directory + "/keys/signing-key.pub.pem", trusted)

    def __enter__(self) -> "Workshop":
        return self

    def __exit__(self, *_) -> None:
        self.install("none")
        shutil.rmtree(self.directory, ignore_errors=True)

    def stick(self, number: int) -> str:
        """An empty stick, 1 to 9. Returns "/opt/media/USBDriveA1/" and so on, which leads to us."""
        ours, place = f"{self.directory}/USBDriveA{number}", f"/opt/media/USBDriveA{number}"
        shutil.rmtree(ours, ignore_errors=True)
        os.mkdir(ours)
        pathlib.Path(place).unlink(missing_ok=True)
        os.symlink(ours, place)
        return place + "/"

    def payload(self, size: int) -> str:
        """A file of bytes that no compression helps with, the same ones each time."""
        path = f"{self.directory}/payload-{size}"
        if not os.path.exists(path):
            numbers = random.Random(20090514)
            with open(path, "wb") as file:
                for done in range(0, size, MIB):
                    file.write(numbers.randbytes(min(MIB, size - done)))
        return path

    def put_image(self, stick: str, size: int, module: int = 1) -> str:
        """Puts a signed, enciphered image of so many bytes for a module onto a stick."""
        image = f"{stick}{device.module_name(module)}.bin"
        run(self.build + "/bin/quillon-image", "build", "--version", "2.0", "--payload", self.payload(size), "--key",
            self.directory + "/image-key.bin", "--sign", self.directory + "/keys/signing-key.pem", "--module",
            device.module_name(module), "--stick", stick)
        run("sync", image)  # nothing is left for the disk to do later
        return image

    def install(self, verifier: str) -> None:
        """Installs a verifier for the next start: "none", where every image counts as signed; "trivial", which
        says yes at once; "ours", with our key trusted; "by path", the same without its entry for what was read."""
        pathlib.Path(VERIFIER).unlink(missing_ok=True)
        if verifier == "trivial":
            shutil.copyfile(self.build + "/bench/trivial-verifier.so", VERIFIER)
        elif verifier != "none":
            library = pathlib.Path(self.build, "lib/libkUEPUser.so").read_bytes()
            if verifier == "by path":  # the entry is found under its name no more
                library = library.replace(b"verifyDigest", b"notThatEntry")
            pathlib.Path(VERIFIER).write_bytes(library)

class SlowMedium:
    """A directory shown at another place as if it lay on a slow stick, until the end of the `with` block: so many bytes
    a second, one request after the other. What has been read once is in the page cache, as with a real stick. What
    FUSE itself takes of a request's time counts for nothing: it is measured first, and each request begins earlier by
    as much, but not before the one before it has ended."""

    def __init__(self, directory: str, place: str, bytes_per_second: float) -> None:
        self.place, self._speed, self._bytes = place, bytes_per_second, mmap.mmap(-1, 16)
        os.makedirs(place, exist_ok=True)
        self._process = os.fork()
        if self._process == 0:
            try:
                with contextlib.suppress(OSError):
                    os.nice(-20)  # as what is no process at all
                self._show(directory)
            finally:
                os._exit(1)
        while not os.path.ismount(place):
            if os.waitpid(self._process, os.WNOHANG)[0]:
                raise BenchError(f"{directory} cannot be mounted at {place}")
            time.sleep(0.01)
        times = [(time.monotonic_ns(), os.statvfs(place), time.monotonic_ns()) for _ in range(50)]
        self._bytes[8:] = int(median(end - begin for begin, _, end in times) - 1e6).to_bytes(8, "little")

    def __enter__(self) -> "SlowMedium":
        return self

    def __exit__(self, *_) -> None:
        device.libc.umount2(self.place.encode(), 2)  # MNT_DETACH; the process ends with the mount
        os.waitpid(self._process, 0)

    @staticmethod
    def is_possible() -> bool:
        return os.path.exists("/dev/fuse") and importlib.util.find_spec("fusepy") is not None

    def busy(self) -> float:
        """The seconds that it was busy with what was read from it, and not from the page cache."""
        return int.from_bytes(self._bytes[:8], "little") / self._speed

    def _show(self, directory: str) -> None:
        import fusepy
        speed, shared, free_at, total, opened, turn = self._speed, self._bytes, 0.0, 0, 0, threading.Lock()

        class Medium(fusepy.Operations):
            use_ns = True

            def getattr(self, path, fh=None):
                status = os.lstat(directory + path)
                return {name: getattr(status, name) for name in ("st_mode", "st_nlink", "st_size")}

            def readdir(self, path, fh):
                return [".", "..", *os.listdir(directory + path)]

            def statfs(self, path):
                return time.sleep(0.001) or {}

            def open(self, path, flags):
                nonlocal opened
                opened = 1
                return os.open(directory + path, os.O_RDONLY)

            def read(self, path, size, offset, fh):
                nonlocal free_at, total, opened
                arrived = time.monotonic() - int.from_bytes(shared[8:], "little") / 1e9 * (1 + opened)
                data = os.pread(fh, size, offset)
                with turn:
                    ends = free_at = max(free_at, arrived) + len(data) / speed
                    total, opened = total + len(data), 0
                    shared[:8] = total.to_bytes(8, "little")
                time.sleep(max(0, ends - time.monotonic()))
                return data

            def release(self, path, fh):
                os.close(fh)

        fusepy.FUSE(Medium(), self.place, foreground=True, kernel_cache=True, attr_timeout=3600, entry_timeout=3600)

class Swupdate:
    """A different program for the same work, as Debian packages it: it verifies a signature, deciphers AES-256-CBC and
    writes a file. Its image is a cpio archive of a description, its CMS signature and the enciphered payload."""

    def __init__(self, payload: str, directory: str, while_reading: bool) -> None:
        """Makes an image in its own directory. Not while reading: the target gets nothing before all is verified."""
        self.payload, self.directory = payload, directory
        os.makedirs(directory, exist_ok=True)
        pathlib.Path(directory, "aes.key").write_text(f"{SWUPDATE_KEY} {SWUPDATE_IV}\n")
        self._run("openssl req -x509 -newkey rsa:4096 -nodes -keyout sign.key -out sign.crt -subj /CN=bench -days 3650"
                  " -addext keyUsage=digitalSignature -addext extendedKeyUsage=emailProtection")
        self._run(f"openssl enc -aes-256-cbc -K {SWUPDATE_KEY} -iv {SWUPDATE_IV} -out image.enc -in", payload)
        sha256 = self._run("sha256sum image.enc").split()[0]
        pathlib.Path(directory, "sw-description").write_text(
            'software = { version = "1.0"; hardware-compatibility: [ "1.0" ]; images: ({ filename = "image.enc";'
            f' type = "raw"; device = "{SWUPDATE_TARGET}"; encrypted = true; ivt = "{SWUPDATE_IV}";'
            f' sha256 = "{sha256}"; installed-directly = {str(while_reading).lower()}; }}); }}\n')
        self._run("openssl cms -sign -in sw-description -out sw-description.sig -signer sign.crt -inkey sign.key"
                  " -outform DER -nosmimecap -binary")
        run("sh", "-c", "printf '%s\\n' sw-description sw-description.sig image.enc |"
            " cpio --quiet -o -H crc > update.swu && rm image.enc && sync update.swu", directory=directory)

    def _run(self, command: str, *more: str) -> str:
        return run(*command.split(), *more, directory=self.directory).stdout

    @staticmethod
    def is_installed() -> bool:
        return all(shutil.which(program) for program in ("swupdate", "openssl", "cpio"))

    def install(self, warm: int) -> Taken:
        """Installs the image into an empty target, on so many bytes of warm memory. The wall time ends with its word:
        it looks only once a second whether it may end, and its exit status is 1 now and then after a success."""
        pathlib.Path(SWUPDATE_TARGET).write_bytes(b"")  # it writes into what is there
        device.warm_memory(warm)
        command = "swupdate -k sign.crt -K aes.key -H bench:1.0 -l 1 -i update.swu".split()
        taken = device.run_until_it_says(command, self.directory, "SWUPDATE successful")
        run("cmp", SWUPDATE_TARGET, self.payload)
        return taken
