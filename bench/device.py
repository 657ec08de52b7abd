"""The virtual device that everything is measured in, the processes in it, and what they take."""
import contextlib
import ctypes
import mmap
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import struct
import subprocess
import time
from typing import Iterator, NamedTuple, Optional

MODULES = "/usr/fwupdate/controls"
SERVICE_QUEUES = ("/fwupdateservice_usb", "/fwupdatecontrol_usb")
START, PROGRESS, TIME, PATH = 1, 6, 7, 8  # commands of the control channel
ACCEPTED, RUNNING, DONE = 0, 1, 2         # and its results
RECORD, KIND = struct.Struct("=iii256si12x"), 8
IMAGE_KEY = "0123456789abcdef"
PROCESSORS = sorted(os.sched_getaffinity(0))  # that we may run on
LONGEST_START, LONGEST_ANSWER, BETWEEN_QUESTIONS = 30, 120, 0.005  # seconds; the last leaves the update its processor
NULL = [(os.POSIX_SPAWN_OPEN, stream, "/dev/null", os.O_RDWR, 0) for stream in (0, 1, 2)]
libc = ctypes.CDLL("librt.so.1", use_errno=True)

class BenchError(Exception):
    """Something cannot be measured, with the reason in words."""

class Taken(NamedTuple):
    """What a piece of work took, in seconds; the processor's is that of the process in question."""
    wall: float
    cpu: float

def require_device() -> None:
    """Refuses to touch the paths of the machine itself."""
    if "QUILLON_DEVICE" not in os.environ:
        raise BenchError("this works in a virtual device only: quillon-device run")

def boot() -> None:
    """Brings the device to where the service finds what its start needs: a boot's markers and a key."""
    require_device()
    run("touch", "/tmp/smack_early_ready", "/tmp/fw_update_ready_usb")
    key = pathlib.Path("/var/lib/quillon/secure-storage/quillon")
    key.parent.mkdir(mode=0o700, parents=True, exist_ok=True)
    records = pathlib.Path("/run/quillon/run")  # where the unit has records kept: in memory, as a machine's /run is
    if not records.exists():
        records.parent.mkdir(exist_ok=True)
        pathlib.Path("/dev/shm/records").mkdir()
        records.symlink_to("/dev/shm/records")
    key.write_text(IMAGE_KEY)
    key.chmod(0o600)

def module_name(number: int) -> str:
    """The name of a module in the plug-in directory, which begins with number 1."""
    return f"module{number:04d}"

def install_modules(module: str, count: int) -> None:
    """Fills the plug-in directory with copies of one module, and nothing else."""
    require_device()
    for entry in os.listdir(MODULES):
        os.unlink(f"{MODULES}/{entry}")
    for name in map(module_name, range(1, count + 1)):
        shutil.copyfile(module, f"{MODULES}/{name}.so")

def forget_earlier_service() -> None:
    """Removes what a service that was killed has left: the next one starts as after a boot."""
    require_device()
    for queue in SERVICE_QUEUES:
        libc.mq_unlink(queue.encode())  # what is not there need not be removed
    libc.sem_unlink(b"/SEM_UPDATE_CONTROL")
    pathlib.Path("/tmp/.fw_service_ready_usb").unlink(missing_ok=True)

@contextlib.contextmanager
def variable(name: str, value: object) -> Iterator[None]:
    """A variable of our environment, and so of the processes that are started meanwhile."""
    os.environ[name] = str(value)
    try:
        yield
    finally:
        del os.environ[name]

def run(*command: str, directory: Optional[str] = None) -> subprocess.CompletedProcess:
    """Runs a program to its end. When that is a failure, the end of what it said is the error."""
    done = subprocess.run(command, cwd=directory, stdin=subprocess.DEVNULL, text=True, capture_output=True, check=False)
    if done.returncode != 0:
        raise BenchError(f"{command[0]} failed: {(done.stdout + done.stderr)[-1000:]}")
    return done

def run_until_it_says(command: list[str], directory: str, text: str) -> Taken:
    """Runs a program to any end. The wall time ends when it says so; the processor's is also its children's."""
    started, said, wall = time.monotonic(), "", 0.0
    with subprocess.Popen(command, cwd=directory, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL) as process:
        while part := os.read(process.stdout.fileno(), 4096):
            said += part.decode(errors="replace")
            wall = wall or (time.monotonic() - started if text in said else 0.0)
        _, process.returncode, usage = os.wait4(process.pid, 0)
    if not wall:
        raise BenchError(f"{command[0]} failed: {said[-1000:]}")
    return Taken(wall, usage.ru_utime + usage.ru_stime)

def place_on(process: int, processor: int) -> None:
    """Keeps every thread of a process on one processor, and those that it starts later."""
    for thread in os.listdir(f"/proc/{process}/task"):
        os.sched_setaffinity(int(thread), {processor})

@contextlib.contextmanager
def on_first_processor() -> Iterator[None]:
    """Keeps us, and what we start, on the first processor meanwhile."""
    os.sched_setaffinity(0, PROCESSORS[:1])
    try:
        yield
    finally:
        os.sched_setaffinity(0, PROCESSORS)

def warm_memory(size: int) -> None:
    """Touches so many bytes of memory and gives them back, so that whoever measures next gets pages that the machine
    really has: one that the host has taken back costs six times as much as all of a deciphering."""
    with mmap.mmap(-1, size, mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS) as memory:
        memory.madvise(mmap.MADV_HUGEPAGE)
        memory[::mmap.PAGESIZE] = bytes(-(-size // mmap.PAGESIZE))

def drop_from_cache(path: str) -> int:
    """Takes a file out of the page cache. Returns how many pages of it are in there afterwards."""
    size = os.path.getsize(path)
    with open(path, "rb") as file, mmap.mmap(file.fileno(), size, mmap.MAP_PRIVATE) as pages:
        os.posix_fadvise(file.fileno(), 0, 0, os.POSIX_FADV_DONTNEED)
        first = (ctypes.c_char * size).from_buffer(pages)
        present = ctypes.create_string_buffer(-(-size // mmap.PAGESIZE))
        result = libc.mincore(first, ctypes.c_size_t(size), present)
        del first  # or the pages cannot be unmapped
    if result != 0:
        raise BenchError("mincore failed")
    return sum(page & 1 for page in present.raw)

def memory_of(smaps_rollup: str, status: str) -> dict[str, int]:
    """A process's memory in KiB, from the texts of these files in its /proc/PID."""
    kib = {name: int(value) for name, value in re.findall(r"^(\w+):\s*(\d+) kB$", smaps_rollup + status, re.M)}
    return {"resident": kib["Rss"], "proportional": kib["Pss"], "anonymous": kib["Anonymous"],
            "unshared": kib["Private_Clean"] + kib["Private_Dirty"], "peak": kib["VmHWM"]}

@contextlib.contextmanager
def memory_group(limit: int) -> Iterator[bool]:
    """Keeps us, and what we start meanwhile, in a control group below our own one, of so many bytes of memory. Gives
    whether such a group can be made."""
    groups = dict(line.split(":", 2)[1:] for line in pathlib.Path("/proc/self/cgroup").read_text().splitlines())
    kind, bound = ("memory", "memory.limit_in_bytes") if "memory" in groups else ("", "memory.max")
    ours = pathlib.Path("/sys/fs/cgroup", kind, groups.get(kind, "").lstrip("/"))
    group, is_made = ours / f"quillon-bench-{os.getpid()}", False
    with contextlib.ExitStack() as stack:
        with contextlib.suppress(OSError):
            group.mkdir()
            stack.callback(group.rmdir)
            (group / bound).write_text(str(limit))
            (group / "cgroup.procs").write_text("0")
            stack.callback((ours / "cgroup.procs").write_text, "0")
            is_made = True
        yield is_made

class Started:
    """A program that was started to be measured, with our environment; killed at the end of its `with` block."""

    def __init__(self, *command: str) -> None:
        self._socket = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self._socket.bind("")  # the kernel chooses a name that is free and leaves no file
        environment = os.environ | {"NOTIFY_SOCKET": "@" + self._socket.getsockname()[1:].decode()}
        for name in ("WATCHDOG_USEC", "WATCHDOG_PID", "JOURNAL_STREAM"):
            environment.pop(name, None)
        self._started = time.monotonic()
        self.pid = os.posix_spawn(command[0], command, environment, file_actions=NULL,
                                  setsigdef=[signal.SIGPIPE, signal.SIGXFSZ])

    def __enter__(self):
        return self

    def __exit__(self, *_) -> None:
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        self._socket.close()

    def wait_until_ready(self) -> float:
        """Waits until it says READY=1. Returns the milliseconds since just before its start."""
        with open(os.pidfd_open(self.pid), "rb", buffering=0) as end:
            while events := select.select([self._socket, end], [], [], LONGEST_START)[0]:
                now = time.monotonic()
                if self._socket not in events:
                    raise BenchError("the process ended before it was ready")
                if b"READY=1" in self._socket.recv(4096).split(b"\n"):
                    return (now - self._started) * 1000
        raise BenchError("the process does not become ready")

    def cpu_seconds(self) -> float:
        """The processor time that it has taken so far."""
        clock = ctypes.c_int()
        libc.clock_getcpuclockid(self.pid, ctypes.byref(clock))
        return time.clock_gettime(clock.value)

    def waits(self) -> int:
        """How often its threads have waited for something so far, and so were woken."""
        return sum(int(re.search(r"^voluntary_ctxt_switches:\s*(\d+)", (thread / "status").read_text(), re.M)[1])
                   for thread in pathlib.Path(f"/proc/{self.pid}/task").iterdir())

    def memory(self) -> dict[str, int]:
        """In KiB, as the kernel counts it; "peak" is the most that it has ever had resident."""
        return memory_of(*(pathlib.Path(f"/proc/{self.pid}/{file}").read_text()
                           for file in ("smaps_rollup", "status")))

class Service(Started):
    """A running quillon-service, one at a time, and the queues of its control channel."""

    def __init__(self, build: str) -> None:
        forget_earlier_service()
        super().__init__(build + "/bin/quillon-service")
        self.taken_to_start = self.wait_until_ready()  # ms
        self._queues = [libc.mq_open(name.encode(), os.O_RDWR | os.O_CLOEXEC) for name in SERVICE_QUEUES]

    def __exit__(self, *_) -> None:
        list(map(os.close, self._queues))  # on Linux a queue's handle is a file's
        super().__exit__()

    def ask(self, command: int, path: str = "") -> int:
        """Sends a record and waits for one. Returns its result."""
        size = ctypes.c_size_t(RECORD.size)
        record = ctypes.create_string_buffer(RECORD.pack(command, 0, KIND, path.encode(), 0), size.value)
        libc.mq_send(self._queues[0], record, size, 0)
        if not select.select([self._queues[1]], [], [], LONGEST_ANSWER)[0]:
            raise BenchError("the service does not answer")
        libc.mq_receive(self._queues[1], record, size, None)
        return RECORD.unpack(record.raw)[1]

    def _taken(self, command: int, last: int = ACCEPTED, path: str = "") -> Taken:
        """Sends a command, and where that is accepted, asks for the progress until it is the last."""
        cpu, started = self.cpu_seconds(), time.monotonic()
        result = self.ask(command, path)
        while result != last and result in (ACCEPTED, RUNNING):
            result = self.ask(PROGRESS)
            time.sleep(BETWEEN_QUESTIONS if result == RUNNING else 0)
        if result != last:
            raise BenchError(f"command {command} of the service ends with {result}")
        return Taken(time.monotonic() - started, self.cpu_seconds() - cpu)

    def use_stick(self, directory: str) -> None:
        """Names the stick of all that follows: ends in "/", in a service's life no shorter than those before."""
        self._taken(PATH, path=directory)

    def estimate(self) -> Taken:
        """Asks for the expected duration: every image is verified, deciphered and asked about."""
        return self._taken(TIME)

    def update(self) -> Taken:
        """Starts an update and waits for its success. Only the first in a service's life makes an estimate."""
        return self._taken(START, last=DONE)
