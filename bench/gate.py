"""`make bench-gate`: instructions and allocations of the hot paths, held within 3 % of recorded ones."""
import os
import pathlib
import re

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

def this_toolchain(build: str) -> dict[str, str]:
    """What counts depend on beside the code: they are held only where it is the recorded one."""
    tools = toolchain(build)
    return tools | {"architecture": os.uname().machine, "C library": os.confstr("CS_GNU_LIBC_VERSION").split()[1],
                    "compiler": re.sub(r"(\d+\.\d+).*", r"\1", tools["compiler"])}

def reason_to_skip(recorded: dict[str, str], here: dict[str, str], cpuinfo: str) -> str:
    """Why counts on this machine say nothing; empty when they do."""
    if here["architecture"] != "x86_64":
        return "counts are recorded for x86_64 only"
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

def count(build: str) -> dict[str, dict[str, int]]:
    """Counts all hot paths within a virtual device: by path "instructions" and "allocations"."""
    program, counts = build + "/bench/hot-paths", {}
    device.boot()
    device.install_modules(build + "/bench/tiny-module.so", 10)
    pathlib.Path("/tmp/info.json").write_text('{"version": "1.2.3", "crc": 305419896, "expected_time": 30}')
    with Workshop(build) as workshop:
        stick = workshop.stick(1)
        workshop.put_image(stick, MIB, module=1)
        workshop.put_image(stick, 65536, module=2)
        for path in run(program).stdout.splitlines():
            device.forget_earlier_service()
            done = run("env", "-i", *PINS, "valgrind", "--tool=callgrind", "--collect-atstart=no",
                       "--callgrind-out-file=/dev/null", program, path)
            counts[path] = {"instructions": number_after("Collected :", done.stderr),
                            "allocations": number_after("allocations", done.stdout)}
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
    return text, all_held
