"""The groups of rows, each with its limits. They work in a booted device; what charts are made of goes to `series`."""
import argparse
import contextlib
import functools
import json
import math
import os
import pathlib
import shutil
import sys
import tempfile
import time
from statistics import median
from typing import Callable

import device
from device import BenchError, Service, Started, Taken, module_name, on_first_processor, run, variable, warm_memory
from report import (BEYOND_IDLE, FLOOR, KINDS, MIB, MODULES_FLOOR, SERVICE, Row, in_turns, percentile, spread,
                    start_limit)
from workshop import SlowMedium, Swupdate, Workshop

TARGET = "/opt/media/target"
PACKAGES = "/opt/usr/apps/appbinarymanager/"
ECHO_QUEUES = ("/quillon-bench-in", "/quillon-bench-out")
QUESTIONS_IN_A_ROW = 500
SLOW_STICK = "/opt/media/USBDriveA9/"  # as long as the other sticks', see Service.use_stick()
PASSES = 10  # over all numbers of modules, so that a slow minute of the machine does not meet one of them alone
MEMORY_MODULES = 10
LITTLE_IMAGE, LITTLE_MEMORY = 24 * MIB, 64 * MIB
FILES = ("bin/quillon-service", "bench/do-nothing", "lib/libquillon-platform.so.0",
         "lib/quillon/libquillon-download.so", "lib/libkUEPUser.so", "bin/quillon-privileged",
         "bin/quillon-storage", "bin/quillon-unit", "bin/quillonctl", "bin/quillon-image", "bin/quillon-device")
Plan = argparse.Namespace  # the options of `bench.py speed`: build, base, quick, rounds, long_rounds, only, largest

def mebibytes(size: int) -> str:
    return f"{size // MIB} MiB"

def medians(samples: list[list[float]]) -> list[float]:
    return [median(taken) for taken in samples]

def milliseconds_in(output: str) -> float:
    """The time of an iteration of the only benchmark that a report of Google Benchmark tells of."""
    try:
        only, = json.loads(output)["benchmarks"]
    except ValueError as error:
        raise BenchError("not the report of one benchmark") from error
    if only.get("error_occurred") or only["time_unit"] != "ms":
        raise BenchError(only.get("error_message", "a benchmark's unit is not ms"))
    return only["real_time"]

def kernel_time(build: str, name: str, file: str, times: int = 0) -> float:
    """Runs one benchmark over a file in a process of its own. Returns the milliseconds of an iteration; where no
    number of them is given, there are as many as make 256 MiB: a large file once, a small one often."""
    times = times or min(max(256 * MIB // os.path.getsize(file), 1), 64)
    warm_memory(max(256 * MIB, 2 * os.path.getsize(file)))
    with variable("QUILLON_BENCH_FILE", file), variable("QUILLON_BENCH_TIMES", times):
        return milliseconds_in(run(build + "/bench/kernels", f"--benchmark_filter=^{name}/",
                                   "--benchmark_format=json").stdout)

def on_one(work: Callable, *arguments):
    """Works on the first processor, together with what it starts."""
    with on_first_processor():
        return work(*arguments)

def openssl_speed(*algorithm: str) -> float:
    """Bytes a second of one of OpenSSL's algorithms, over one block."""
    return speed_in(on_one(run, *"openssl speed -mr -seconds 1 -bytes 16384 -evp".split(), *algorithm).stdout)

def speed_in(output: str) -> float:
    """Bytes a second, from "+F:25:AES-256-CBC:6768212059.70", a line of openssl speed -mr."""
    for line in output.splitlines():
        if line.startswith("+F:"):
            return float(line.rsplit(":", 1)[1])
    raise BenchError("openssl speed does not tell its speed")

def measure_kernels(plan: Plan, series: dict) -> list[Row]:
    """Deciphering and checksums of files. Series: "deciphering", each with "bytes", "service" and "plain" in ms and
    the "goal" of their ratio, 0 for none; "decipheringParts" with "bytes" and each part in ms."""
    def alone(*arguments) -> Callable[[], float]:
        """The time of a kernel on one processor."""
        return lambda: on_one(kernel_time, plan.build, *arguments)

    rows, points = [], series.setdefault("deciphering", [])
    with Workshop(plan.build) as workshop:
        for size, goal in ((MIB, 1.0), (4 * MIB, 0), (16 * MIB, 1.4), (64 * MIB, 0), (256 * MIB, 1.6)):
            if size > plan.largest:
                break
            image, work = workshop.put_image(workshop.stick(1), size), f"`aes_256_cbc_all`, {mebibytes(size)}"
            last = [lambda: kernel_time(plan.build, "decipher/service", image),
                    lambda: openssl_speed("aes-256-cbc", "-decrypt")]
            ours, plain, *rest = medians(in_turns(
                plan.rounds, alone("decipher/service", image), alone("decipher/plain", image),
                *(last if size == plan.largest else [])))
            points.append({"bytes": size, "service": ours, "plain": plain, "goal": goal})
            if goal:
                rows.append(Row(work, "the plain loop", "times as fast", plain / ours, "at least", goal,
                                f"{ours:.2f} ms; plain {plain:.2f} ms"))
        on_all, openssl = rest
        speed, speed_on_all = (plan.largest / taken * 1000 for taken in (ours, on_all))
        rows.append(Row(work, "`openssl speed`, AES-256-CBC deciphering", "of its speed", speed / openssl, "at least",
                        0.38, f"{speed / 1e9:.2f} GB/s; OpenSSL {openssl / 1e9:.2f} GB/s; "
                        f"ours with all processors {speed_on_all / 1e9:.2f} GB/s"))
        parts = medians(in_turns(plan.rounds, alone("decipher/service", image), *(
            alone("decipher/part-" + part, image, 1) for part in ("reading", "memory", "cipher"))))
        series["decipheringParts"] = {"bytes": os.path.getsize(image)} | dict(
            zip(("whole", "reading", "memory", "cipher"), parts))

        file, work = workshop.payload(plan.largest), f"`getBinaryCRC32`, {mebibytes(plan.largest)}"
        ours, reading, bytewise, sliced = medians(in_turns(plan.rounds, *(
            alone("checksum/" + kernel, file) for kernel in ("service", "reading-alone", "bytewise", "sliced"))))
    return rows + [Row(work + more, against, figure, theirs / taken, "at least", limit, f"{taken:.2f} ms; "
                       f"{name} {theirs:.2f} ms") for more, against, figure, taken, name, theirs, limit in (
        ("", "a bytewise table", "times as fast", ours, "bytewise", bytewise, 15),
        ("", "`fread` alone", "of its speed", ours, "reading", reading, 0.6),
        (", no carry-less multiply", "a bytewise table", "times as fast", sliced, "bytewise", bytewise, 4.5))]

def estimate_then_update(build: str, stick: str, size: int) -> tuple[float, int]:
    """The milliseconds of both over one image, with everything trivial but the service, and its peak memory."""
    with Service(build) as service:
        service.use_stick(stick)
        warm_memory(2 * size)
        return service.update().wall * 1000, service.memory()["peak"] * 1024

def update_into_file(build: str, sticks: list[str], size: int) -> Taken:
    """One update run from the first stick, without the estimate before it, into a file."""
    with Service(build) as service:
        service.use_stick(sticks[1])
        service.update()  # with the estimate that only the first one makes
        pathlib.Path(TARGET).unlink()  # which the small image was written into
        service.use_stick(sticks[0])
        warm_memory(2 * size)
        return service.update()

def estimates_in_a_row(build: str, stick: str) -> float:
    """How many MiB more stay resident after ten more estimates."""
    with Service(build) as service:
        service.use_stick(stick)
        resident = [service.estimate() and service.memory()["resident"] for _ in range(11)]
    return (resident[-1] - resident[0]) / 1024

def little_memory(workshop: Workshop, stick: str) -> list[Row]:
    """Estimates and updates a large image where memory is small."""
    image = workshop.put_image(stick, LITTLE_IMAGE)
    device.drop_from_cache(image)  # or its pages count for whoever read them first
    with device.memory_group(LITTLE_MEMORY) as is_made:
        if not is_made:
            print("no control group can be made: the row of a device with little memory is left out", file=sys.stderr)
            return []
        try:
            _, peak = estimate_then_update(workshop.build, stick, LITTLE_IMAGE)
        except BenchError as error:
            peak, _ = math.inf, print(f"with {mebibytes(LITTLE_MEMORY)} of memory: {error}", file=sys.stderr)
    return [Row(f"estimate then update, {mebibytes(LITTLE_IMAGE)}, in a control group of {mebibytes(LITTLE_MEMORY)}",
                "the group's limit", "MiB resident at the peak", peak / MIB, "at most", LITTLE_MEMORY / MIB,
                "estimate and update both succeed")]

def wall_and_cpu(samples: list[list[Taken]]) -> list[tuple[str, list[float]]]:
    """The medians of each kind of time, in ms."""
    return [(kind, [median(taken[index] for taken in runs) * 1000 for runs in samples])
            for index, kind in enumerate(("wall", "CPU"))]

def measure_updates(plan: Plan, _: dict) -> list[Row]:
    """A small image and a large one through the running service, and through swupdate, where that is installed."""
    build, size, name = plan.build, plan.largest, mebibytes(plan.largest)
    with Workshop(build) as workshop:
        sticks = [workshop.stick(1), workshop.stick(2)]
        image = workshop.put_image(sticks[0], size)
        workshop.put_image(sticks[1], 64 * 1024)
        device.install_modules(build + "/bench/sink-module.so", 1)
        workshop.install("trivial")
        both, plain, alone = in_turns(
            plan.rounds, lambda: estimate_then_update(build, sticks[0], size),
            lambda: 2 * kernel_time(build, "decipher/plain", image, 2),
            lambda: 2 * kernel_time(build, "decipher/service", image, 2))
        ours, theirs, alone = medians([[taken for taken, _ in both], plain, alone])
        peak = max(memory for _, memory in both)
        detail = f"plain loop twice {theirs:.1f} ms; of ours, deciphering twice takes {alone:.1f} ms alone"
        rows = [Row(f"estimate then update of one image, {name}", "the plain loop twice", "times as fast",
                    theirs / ours, "at least", 1.6, f"{ours:.1f} ms; {detail}"),
                # The estimate's plain text is gone before the update begins.
                Row("the same, peak memory", "the image", "MiB beyond it", (peak - os.path.getsize(image)) / MIB,
                    "at most", 16, f"{peak / MIB:.1f} MiB in all"),
                Row(f"ten more estimates of it, {name}", "resident memory after the first", "MiB more",
                    estimates_in_a_row(build, sticks[0]), "at most", 0.1, "its first and last page each time")]
        rows += little_memory(workshop, workshop.stick(3))

        def updating(verifier: str) -> Taken:
            workshop.install(verifier)
            return update_into_file(build, sticks, size)

        with variable("QUILLON_BENCH_TARGET", TARGET):
            # What it costs to have the verifier asked about what was really read, besides the path.
            runs = in_turns(plan.long_rounds, lambda: updating("ours"), lambda: updating("by path"))
            for (kind, (asked, by_path)), limit in zip(wall_and_cpu(runs), (1.05, 1.6)):
                rows.append(Row(f"update run whose verifier is asked about what was read, {name}, {kind}",
                                "the same, asked by path alone", f"times its {kind} time", asked / by_path,
                                "at most", limit, f"{asked:.1f} ms; by path alone {by_path:.1f} ms"))
            asked, by_path, hashing = medians(in_turns(
                plan.long_rounds, lambda: on_one(updating, "ours").cpu, lambda: on_one(updating, "by path").cpu,
                lambda: size / openssl_speed("sha256")))
            rows.append(Row(f"the same on one processor, {name}, the CPU time it adds", "hashing as many bytes",
                            "times its CPU time", (asked - by_path) / hashing, "at most", 1,
                            f"{(asked - by_path) * 1000:.1f} ms; `openssl speed` {hashing * 1000:.1f} ms"))
            if not Swupdate.is_installed():
                print("swupdate or cpio is not installed: its rows are left out", file=sys.stderr)
                return rows
            large, tiny = workshop.payload(size), workshop.payload(64 * 1024)
            verified, direct, start = (
                Swupdate(payload, f"{workshop.directory}/swupdate-{name}", while_reading=name == "direct")
                for name, payload in (("verified", large), ("direct", large), ("start", tiny)))
            runs = in_turns(plan.long_rounds, lambda: updating("ours"), lambda: verified.install(2 * size),
                            lambda: direct.install(2 * size), lambda: start.install(2 * size))
            run("cmp", TARGET, large)
    for (kind, (ours, theirs, direct, start)), limit in zip(wall_and_cpu(runs), (0.5, 0.6)):
        rows.append(Row(f"update run of a signed image into a file, {name}, {kind}",
                        "`swupdate`, net of its fixed start", f"of its {kind} time", ours / (theirs - start),
                        "at most", limit,
                        f"{ours:.1f} ms; swupdate {theirs - start:.1f} ms and a start of {start:.1f} ms; "
                        f"writing before all is verified, which our service never does, {direct - start:.1f} ms"))
    return rows

def round_trips(build: str, rounds: int, *queues: str) -> list[list[float]]:
    """Asks two pairs of queues in turns. Returns the microseconds of each one's questions."""
    said = run(build + "/bench/queues", "ask", str(rounds), str(QUESTIONS_IN_A_ROW), *queues).stdout
    times = [line.split() for line in said.splitlines()]
    return [[float(taken) for asked, taken in times if asked == pair] for pair in "01"]

def measure_round_trips(plan: Plan, _: dict) -> list[Row]:
    """Questions to the running service beside a process that only echoes records."""
    rows, places = [], device.PROCESSORS
    device.install_modules(plan.build + "/bench/tiny-module.so", 1)
    with Service(plan.build) as service, Started(plan.build + "/bench/queues", "echo", *ECHO_QUEUES) as echo:
        for name, theirs in (("same CPU", places[0]), ("across CPUs", places[-1]))[:len(places)]:
            device.place_on(service.pid, theirs)
            device.place_on(echo.pid, theirs)
            with on_first_processor():
                times = round_trips(plan.build, plan.rounds * 2, *device.SERVICE_QUEUES, *ECHO_QUEUES)
            late = [percentile(taken, 99) for taken in times]
            for what, limit, (ours, floor) in (("median", 1.5, medians(times)), ("99th percentile", 2, late)):
                rows.append(Row(f"command 6 round trip, {name}, {what}", "bare queue ping-pong of 284 bytes",
                                "times its time", ours / floor, "at most", limit,
                                f"{ours:.1f} µs; ping-pong {floor:.1f} µs"))
    return rows

def measure_footprint(build: str, modules: list[int], runs: int, memory_runs: int, settle: int) -> dict:
    """Measures so many starts of each process with each number of modules, and the memory of so many processes, so
    many ms after READY, in turns, every other round the other way round. Returns "start" in ms and "memory" in KiB,
    whose elements have "modules", "process" and spreads: in "time", or in each of KINDS; and "settle"."""
    device.boot()
    floor, tiny = build + "/bench/do-nothing", build + "/bench/tiny-module.so"
    commands = {SERVICE: [build + "/bin/quillon-service"], FLOOR: [floor], MODULES_FLOOR: [floor, device.MODULES]}
    times: dict = {(number, process): [] for number in modules for process in commands}
    counts = list(modules)

    def start(process: str) -> tuple[float, dict[str, int]]:
        """Starts a process. Returns the milliseconds that took, and its memory if that is wanted."""
        device.forget_earlier_service()
        with Started(*commands[process]) as started:
            taken = started.wait_until_ready()
            time.sleep(settle / 1000 if is_settling else 0)
            return taken, started.memory() if is_settling else {}

    is_settling, each = False, [functools.partial(start, process) for process in commands]
    for done in range(PASSES):
        rounds = runs * (done + 1) // PASSES - runs * done // PASSES
        for number in counts if rounds else ():
            device.install_modules(tiny, number)
            for process, taken in zip(commands, in_turns(rounds, *each)):
                times[number, process] += [ready for ready, _ in taken]
        counts.reverse()
    device.install_modules(tiny, MEMORY_MODULES)
    is_settling = True
    memory = {process: [held for _, held in taken] for process, taken in zip(commands, in_turns(memory_runs, *each))}
    starts = [{"modules": number, "process": process, "time": spread(taken)}
              for (number, process), taken in times.items()]
    return {"settle": settle, "start": starts, "memory": [
        {"modules": MEMORY_MODULES, "process": process} | {kind: spread([taken[kind] for taken in samples])
                                                           for kind in KINDS} for process, samples in memory.items()]}

def sizes(build: str) -> list[dict]:
    """The "file"s that are shipped, and the floor, with their "bytes" without symbols, as far as the build has them."""
    found = []
    with tempfile.NamedTemporaryFile() as stripped:
        for path in filter(os.path.exists, (f"{build}/{file}" for file in FILES)):
            run("strip", "--strip-unneeded", "--remove-section=.comment", "--remove-section=.note", "-o",
                stripped.name, path)
            found.append({"file": os.path.basename(path), "bytes": os.path.getsize(stripped.name)})
    return found

def idle_rows(plan: Plan) -> list[Row]:
    """What an idle service does: its ticks, and what it holds meanwhile."""
    seconds = 1 if plan.quick else 60
    with Service(plan.build) as service:
        place = pathlib.Path(f"/proc/{service.pid}")
        time.sleep(seconds / 6)  # one tick
        before = service.waits()
        time.sleep(seconds)
        waits, threads = service.waits() - before, len(os.listdir(place / "task"))
        files = [to for to in map(os.readlink, (place / "fd").iterdir()) if to != "/dev/null"]
        timers = (place / "timers").read_text().count("ID:") + sum("timerfd" in to for to in files)
    return [Row("idle service, its wake-ups", "a tick each 10 s", f"in {seconds} s", waits, "at most",
                seconds // 10 + 1, "voluntary switches of all threads"),
            Row("the same, its threads", "those of `main`, loop and receiver", "threads", threads, "at most", 3,
                f"{timers} timers"),
            Row("the same, its descriptors", "two queues and the loop's own", "beside `/dev/null`", len(files),
                "at most", 3, ", ".join(sorted(files)))]

def tool_rows(plan: Plan) -> list[Row]:
    """The tool, where nothing is to do, beside a process that does nothing."""
    def taken(program: str, *words: str) -> float:
        began = time.monotonic()
        os.waitpid(os.posix_spawn(plan.build + program, (program, *words), {}, file_actions=device.NULL), 0)
        return (time.monotonic() - began) * 1000

    device.forget_earlier_service()
    commands = {"progress`, no service": "progress", "--help`": "--help", "again`, a refused command": "again"}
    floor, *ours = medians(in_turns(plan.rounds * 4, lambda: taken("/bench/do-nothing"), *(
        lambda word=word: taken("/bin/quillonctl", word) for word in commands.values())))
    return [Row("`quillonctl " + name, "do-nothing process", "times its time", time_taken / floor, "at most", 1.5,
                f"{time_taken:.2f} ms; floor {floor:.2f} ms") for name, time_taken in zip(commands, ours)]

def measure_starts(plan: Plan, series: dict) -> list[Row]:
    """Start to READY and idle memory beside the do-nothing process. Series: "start" and "memory" of the footprint."""
    counts, settle = [1, 10, 100, 1000], 200 if plan.quick else 11000
    figures = measure_footprint(plan.build, counts, plan.rounds * 4, plan.long_rounds, settle)
    series |= {"start": figures["start"], "memory": figures["memory"]}
    ours, floor = ({start["modules"]: start["time"]["median"] for start in figures["start"]
                    if start["process"] == process} for process in (SERVICE, MODULES_FLOOR))
    resident = {memory["process"]: memory["resident"]["median"] / 1024 for memory in figures["memory"]}

    def growth(starts: dict[int, float], least: int = 1, most: int = 1000) -> float:
        """In µs a module."""
        return (starts[most] - starts[least]) * 1000 / (most - least)

    beyond, later = (growth(ours, *counts) - growth(floor, *counts) for counts in ((1, 100), (100, 1000)))
    # The dynamic linker's own share grows with the modules that are there.
    return [Row(f"start to READY, {count} module{'s'[:count - 1]}", "do-nothing process, modules opened", "ms",
                ours[count], "at most", start_limit(floor[count]), f"floor {floor[count]:.2f} ms; limit × 1.3 + 1 ms")
            for count in counts] + [
        Row("growth of the start, 1 to 1000 modules", "the same of the do-nothing process", "µs a module",
            growth(ours), "at most", growth(floor) + 20, f"floor {growth(floor):.1f} µs; "
            f"beyond it {beyond:.1f} µs each up to 100, {later:.1f} µs each from there; limit + 20 µs"),
        *idle_rows(plan), *tool_rows(plan),
        Row("idle resident memory, 10 modules", "do-nothing process, modules opened", "MiB", resident[SERVICE],
            "at most", resident[MODULES_FLOOR] + BEYOND_IDLE, f"floor {resident[MODULES_FLOOR]:.2f} MiB; "
            f"without modules {resident[FLOOR]:.2f} MiB; limit + {BEYOND_IDLE} MiB")]

def many_modules(build: str, count: int) -> dict:
    """Updates so many modules from packages whose mounts are emulated: "seconds", and in the modules "ownSeconds"."""
    device.boot()
    device.install_modules(build + "/bench/sink-module.so", count)
    for name in map(module_name, range(1, count + 1)):
        mounted = pathlib.Path(PACKAGES, "emps", name + "emp")
        mounted.mkdir(parents=True, exist_ok=True)
        (mounted / f"{name}.bin").write_bytes(b"Q" * 4096)
        (mounted / "info.json").write_text('{"version": "2.0", "crc": 268304878, "expected_time": 1}')
        pathlib.Path(PACKAGES, name + "emp.img").touch()
    # A worker that ends before its guard listens would be waited for until its time is over.
    with variable("QUILLON_BENCH_TAKES", 2000):
        return json.loads(run(build + "/bench/many-modules", str(count)).stdout)

def measure_many_modules(plan: Plan, _: dict) -> list[Row]:
    """`update --all` over many modules, and an estimate of images that are next to nothing."""
    count = 20 if plan.quick else 1000
    with Workshop(plan.build) as workshop:
        workshop.install("trivial")
        device.install_modules(plan.build + "/bench/sink-module.so", count)
        image = put_images(workshop, stick := workshop.stick(1), 1, count)
        whole, alone = medians(in_turns(plan.long_rounds, lambda: estimate(plan.build, stick) * 1e6 / count,
                                        lambda: kernel_time(plan.build, "decipher/service", image, count) * 1000))
    runs = [many_modules(plan.build, count) for _ in range(plan.long_rounds)]
    beyond = median(taken["seconds"] - taken["ownSeconds"] for taken in runs) * 1000 / count
    return [Row(f"`update --all`, {count} modules of 4 KiB", "sum of the modules' own times", "ms a module beyond it",
                beyond, "at most", 1, f"modules' own {median(taken['ownSeconds'] for taken in runs):.3f} s"),
            Row(f"estimate, {count} modules of 1 byte, trivial verifier", "deciphering each of the images alone",
                "µs a module beyond it", whole - alone, "at most", 20, f"{whole:.1f} µs; deciphering {alone:.1f} µs")]

def put_images(workshop: Workshop, stick: str, size: int, count: int) -> str:
    """Puts the same image for so many modules onto a stick. Returns the path of the first."""
    first = workshop.put_image(stick, size)
    for number in range(2, count + 1):
        shutil.copyfile(first, f"{stick}{module_name(number)}.bin")
    return first

def estimate(build: str, stick: str) -> float:
    """The seconds of a service's first estimate."""
    with Service(build) as service:
        service.use_stick(stick)
        return service.estimate().wall

def bound_of(medium: float, processor: float, plugin: float) -> str:
    """The resource that was busy longest."""
    busy = {"processor": processor, "medium": medium, "plug-in": plugin}
    return max(busy, key=busy.__getitem__)

# Where images are, and at how many bytes a second, 0 for the page cache; whether they are dropped before the update, as
# where memory does not hold them; and the bytes a second of the modules' flash, 0 for any amount at once.
HELD = {f"at {speed} MB/s, read for each phase, flash of 20 MB/s": (speed * 1e6, True, 20e6) for speed in (8, 40, 100)}
SETTINGS = {"in the page cache": (0, False, 0), "at 40 MB/s, read once": (40e6, False, 0),
            "at 40 MB/s, read for each phase": (40e6, True, 0), "at 40 MB/s, flash of 20 MB/s": (40e6, False, 20e6),
            **HELD}

def bound_run(build: str, setting: str, sticks: list[str], size: int) -> dict[str, list[float]]:
    """Estimates and updates the images of the first stick, so many bytes in all. Returns for each phase its seconds,
    and those that medium, processor and plug-in were busy."""
    speed, is_dropped, flash = SETTINGS[setting]
    with contextlib.ExitStack() as stack:
        stick, busy = sticks[0], lambda: 0.0
        if speed:
            stick, busy = SLOW_STICK, stack.enter_context(SlowMedium(sticks[0], SLOW_STICK, speed)).busy
        stack.enter_context(variable("QUILLON_BENCH_FLASH", flash))
        service = stack.enter_context(Service(build))
        service.use_stick(sticks[1])
        service.update()  # with the estimate that only the first one makes
        service.use_stick(stick)

        def phase(work: Callable[[], Taken], flashed: float) -> list[float]:
            before, taken = busy(), work()
            return [taken.wall, busy() - before, taken.cpu, flashed]

        def read_all() -> Taken:
            began = time.monotonic()
            for image in images:
                image.read_bytes()
            return Taken(time.monotonic() - began, 0)

        def drop_all() -> None:
            if is_dropped and any(device.drop_from_cache(str(image)) for image in images):
                raise BenchError("the page cache keeps what it was told to drop")

        phases, images = {}, sorted(pathlib.Path(stick).iterdir())
        if setting in HELD:  # what a program that only reads makes of this medium
            phases["reading alone"] = phase(read_all, 0)
            drop_all()
        phases["estimate"] = phase(service.estimate, 0)
        drop_all()
        return phases | {"update": phase(service.update, size / flash if flash else 0)}

def bound_row(phase: str, count: int, setting: str, size: int, taken: dict[str, float], alone: float) -> list[Row]:
    """The row of a phase over so many images, so many bytes each, if that has a goal."""
    if setting not in HELD:
        return []
    speed, _, flash = HELD[setting]
    name, reading = f"{phase}, {count} module{'s'[:count - 1]}, stick {setting}", count * size / speed
    if phase == "estimate":
        return [Row(name, "the stick alone", "of the time the stick is busy", reading / taken["seconds"], "at least",
                    0.94 if count == 1 else 0.97, f"{taken['seconds']:.3f} s; stick {reading:.3f} s; to a program that "
                    f"only reads {alone:.3f} s")]
    flashing = count * size / flash
    return [Row(name, "the larger of reading and flashing", "times its time", taken["seconds"] / max(reading, flashing),
                "at most", 1.1, f"{taken['seconds']:.3f} s; reading {reading:.3f} s, flashing {flashing:.3f} s")
            ] if phase == "update" and count > 1 else []

def measure_bounds(plan: Plan, series: dict) -> list[Row]:
    """What bounds estimates and updates of 1, 10 and 100 modules. Series: "bounds", each with "setting", "modules",
    "phase", the "seconds" in all, those that each resource was busy, and the busiest, "bound"; "boundsImageBytes"."""
    if not SlowMedium.is_possible():
        print("no python3-fusepy or no /dev/fuse: what bounds many modules is left out", file=sys.stderr)
        return []
    rows, alone, size = [], 0.0, MIB // 4 if plan.quick else 2 * MIB
    series |= {"bounds": [], "boundsImageBytes": size}
    with Workshop(plan.build) as workshop:
        workshop.install("ours")
        for count in (1, 10, 100):
            device.install_modules(plan.build + "/bench/sink-module.so", count)
            sticks = [workshop.stick(1), workshop.stick(2)]
            first, _ = (put_images(workshop, stick, each, count) for stick, each in zip(sticks, (size, 1)))
            settings = [setting for setting, (speed, *_) in SETTINGS.items() if count < 100 or not 0 < speed < 40e6]
            runs = [[bound_run(plan.build, setting, sticks, count * size) for setting in settings]
                    for _ in range(1 if plan.quick else 3)]
            for setting, taken in zip(settings, zip(*runs)):
                for phase in taken[0]:
                    middle = medians(list(zip(*(phases[phase] for phases in taken))))
                    bound = dict(zip(("seconds", "medium", "processor", "plugin"), middle), setting=setting,
                                 modules=count, phase=phase, bound=bound_of(*middle[1:]))
                    series["bounds"].append(bound)
                    alone = bound["seconds"] if phase == "reading alone" else alone
                    rows += bound_row(phase, count, setting, os.path.getsize(first), bound, alone)
    return rows

GROUPS: dict[str, Callable[[Plan, dict], list[Row]]] = {
    "kernels": measure_kernels, "updates": measure_updates, "round-trips": measure_round_trips,
    "starts": measure_starts, "many-modules": measure_many_modules, "bounds": measure_bounds}

def measure(plan: Plan) -> dict:
    """Measures the plan's groups within a booted device: "rows", and the series of each group."""
    results: dict = {"rows": []}
    for name in plan.only or GROUPS:
        print("measuring: " + name, file=sys.stderr)
        results["rows"] += [row.to_json() for row in GROUPS[name](plan, results)]
    return results

def compare_builds(plan: Plan) -> dict:
    """Both builds in turns. Returns "comparison": each "work", its "unit", the medians of "base" and "here"."""
    pairs = []

    def add(work: str, unit: str, measure_build: Callable[[str], float]) -> None:
        both = in_turns(plan.rounds, lambda: measure_build(plan.base), lambda: measure_build(plan.build))
        pairs.append({"work": work, "unit": unit} | dict(zip(("base", "here"), medians(both))))

    def round_trip(build: str, processor: int) -> float:
        with Service(build) as service, on_first_processor():
            device.place_on(service.pid, processor)
            return median(round_trips(build, 2, *device.SERVICE_QUEUES * 2)[0])

    def start(build: str) -> float:
        with Service(build) as service:
            return service.taken_to_start

    def idle_memory(build: str) -> float:
        with Service(build) as service:
            time.sleep(0.3)
            return service.memory()["resident"] / 1024

    with Workshop(plan.build) as workshop:
        for size in sorted({MIB, 16 * MIB, plan.largest}):
            image = workshop.put_image(stick := workshop.stick(1), size)
            add(f"`aes_256_cbc_all`, {mebibytes(size)}", "ms",
                lambda build: kernel_time(build, "decipher/service", image))
        add(f"`getBinaryCRC32`, {mebibytes(size)}", "ms", lambda build: kernel_time(build, "checksum/service", image))
        workshop.install("trivial")
        device.install_modules(plan.build + "/bench/sink-module.so", 1)
        add(f"estimate then update, {mebibytes(size)}", "ms", lambda build: estimate_then_update(build, stick, size)[0])
        workshop.install("none")
        for name, place in (("same CPU", device.PROCESSORS[0]), ("across CPUs", device.PROCESSORS[-1])):
            add(f"command 6 round trip, {name}", "µs", lambda build: round_trip(build, place))
        for count in (1, 100, 1000):
            device.install_modules(plan.build + "/bench/tiny-module.so", count)
            add(f"start to READY, modules: {count}", "ms", start)
            if count == 1:
                add("resident memory after the start", "MiB", idle_memory)
    return {"comparison": pairs}
