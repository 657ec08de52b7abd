"""`make bench-gate`: instructions and allocations of the hot paths, held within 3 % of recorded ones."""
import os
import pathlib
import re
import statistics

import device
from device import BenchError, run
from report import MIB, toolchain
from workshop import Workshop

TOLERANCE = 0.03
# The same code on every x86-64 processor: OpenSSL with AES-NI, SSSE3 and carry-less multiply but without AVX; the C
# library with what every such processor has, and one size of cache.
NEEDED = ("aes", "pclmulqdq", "ssse3")
PINS = ("OPENSSL_ia32cap=0x0218020307808000:0x0", "LD_BIND_NOW=1", "LC_ALL=C", "PATH=/usr/bin:/bin",
        "GLIBC_TUNABLES=glibc.cpu.hwcaps=-AVX,-AVX2,-AVX512F,-AVX512VL,-AVX512BW,-BMI1,-BMI2,-LZCNT,-MOVBE,-ERMS,"
        "-FSRM,-RTM,-SSE4_2,-XSAVE,-XSAVEC:glibc.cpu.x86_data_cache_size=0x8000"
        ":glibc.cpu.x86_shared_cache_size=0x100000:glibc.cpu.x86_non_temporal_threshold=0xc0000")
# What an emulator takes for its processor: one that multiplies without carries, and one of 32 bits that cannot.
EMULATED = {"qemu-aarch64": "cortex-a72", "qemu-arm": "cortex-a15"}

def this_toolchain(build: str) -> dict[str, str]:
    """What counts depend on beside the code: they are held only where it is the recorded one."""
    tools = toolchain(build)
    tools["compiler"] = re.sub(r"(\d+\.\d+).*", r"\1", tools["compiler"])
    if emulator := tools.pop("emulator"):
        name, _, libraries = emulator.split(";")
        features = pathlib.Path(libraries, "usr/include/features.h").read_text()
        return tools | {"C library": f"2.{number_after('define.__GLIBC_MINOR__', features)}",
                        "QEMU": re.findall(r"version (\d+\.\d+)", run(name, "--version").stdout)[0]}
    return tools | {"C library": os.confstr("CS_GNU_LIBC_VERSION").split()[1]}

def reason_to_skip(recorded: dict[str, str], here: dict[str, str], cpuinfo: str) -> str:
    """Why counts on this machine say nothing; empty when they do."""
    if here["architecture"] != "x86_64" and "QEMU" not in here:
        return "counts are recorded for x86_64, and for others emulated (make bench-gate ARCH=arm64)"
    flags = re.search(r"^flags.*$", cpuinfo, re.MULTILINE)
    for flag in NEEDED:
        if flags and flag not in flags[0].split():
            return f"this processor has no {flag}"
    differences = ", ".join(f"{name} {here[name]} instead of {recorded.get(name)}" for name in sorted(here)
                            if here[name] != recorded.get(name))
    return differences and "the counts were recorded with another one: " + differences

def number_after(word: str, text: str) -> int:
    """The count that a program tells behind a word."""
    if found := re.search(word + r"\s*(\d+)", text):
        return int(found[1])
    raise BenchError("no count: " + text[-1000:])

def count(tools: str, build: str) -> dict[str, dict[str, int]]:
    """Counts all hot paths of a build within a virtual device: by path "instructions" and "allocations". The tools are
    a build for this machine."""
    program, counts = build + "/bench/hot-paths", {}
    counter = "valgrind --tool=callgrind --collect-atstart=no --callgrind-out-file=/dev/null".split()
    emulator = list(filter(None, toolchain(build)["emulator"].split(";")))
    if emulator:
        counter = [*emulator, "-cpu", EMULATED[emulator[0]], "-plugin", tools + "/bench/guest-instructions.so"]
    device.boot()
    device.install_modules(build + "/bench/tiny-module.so", 10)
    pathlib.Path("/tmp/info.json").write_text('{"version": "1.2.3", "crc": 305419896, "expected_time": 30}')
    with Workshop(tools) as workshop:
        stick = workshop.stick(1)
        workshop.put_image(stick, MIB, module=1)
        for path in run(*emulator, program).stdout.splitlines():
            counted = []
            # The service deciphers a block beyond the image. One in 256 images happens to have a right padding there.
            for _ in range(3 if path.startswith("estimate") else 1):
                workshop.put_image(stick, 65536, module=2)
                device.forget_earlier_service()
                done = run("env", "-i", *PINS, *counter, program, path)
                counted.append((number_after("allocations", done.stdout), number_after("Collected :", done.stderr)))
            allocations, instructions = statistics.median_low(counted)
            counts[path] = {"instructions": instructions, "allocations": allocations}
    return counts

def hold(recorded: dict, counted: dict) -> tuple[str, bool]:
    """Holds counts against recorded ones. Returns a table, and whether all are held: a path of one side only is not."""
    text, all_held = "", True
    for path in sorted(recorded | counted):
        for kind in ("instructions", "allocations"):
            old, new = (counts.get(path, {}).get(kind, 0) for counts in (recorded, counted))
            held = path in recorded and path in counted and abs(new - old) <= TOLERANCE * old
            change = f"{(new / old - 1) * 100:+.1f} %" if old else "new" if new else ""
            text += f"{path:30}{kind:14}{old:12}{new:12}{change:>10}{'' if held else '  NOT HELD'}\n"
            all_held &= held
    folding, slicing = (counted.get(f"checksum by {kernel}, 1 MiB", {}).get("instructions", 0)
                        for kernel in ("folding", "slicing"))
    if folding:
        text += f"checksum by slicing: {slicing / folding:.1f} times as many instructions as by folding\n"
    return text, all_held
