#!/usr/bin/python3
"""What the service takes and how fast it is, each figure beside its limit. Everything is measured in a private
virtual device, where this program starts itself again. Exit codes: 0 done; 1 something cannot be measured, read or
written; 2 wrong command line; 3 a goal is missed, with --check, or a count is not held."""
import argparse
import importlib.util
import json
import os
import pathlib
import re
import subprocess
import sys

sys.dont_write_bytecode = True  # or it would lie among the sources

import device
import gate
import report
import rows
from device import BenchError

SOURCES = pathlib.Path(__file__).resolve().parent.parent
FAILED, MISSED = 1, 3

def in_new_device(options: argparse.Namespace, *more: str) -> dict:
    """What this very command measures in a device of its own."""
    done = subprocess.run([options.build + "/bin/quillon-device", "run", "--", __file__, *sys.argv[1:], "--in-device",
                           "--build", options.build, *more], stdout=subprocess.PIPE, check=False)
    if done.returncode != 0:
        raise BenchError("nothing was measured in the virtual device")
    return json.loads(done.stdout)

def write_json(path: str, value: dict) -> None:
    """Writes it with the innermost objects in a line each."""
    text = json.dumps(value, indent="\t", sort_keys=True, ensure_ascii=False)
    pathlib.Path(path).write_text(re.sub(r"(?<!})\n\s*(?=[^{}]*})", " ", text) + "\n")

def document(path: str, target: str) -> str:
    """A document that is to take figures. One that cannot is found out here, not after minutes of measuring."""
    text = pathlib.Path(path).read_text() if path else ""
    return text and report.with_figures(text, target, "")

def tell(options: argparse.Namespace, figures: dict, markdown: str, page: str, target: str) -> None:
    """Says the figures and puts them where they are wanted."""
    print(markdown, end="")
    if options.json:
        write_json(options.json, figures)
    if page:
        pathlib.Path(page).write_text(report.with_figures(document(page, target), target, markdown))

def measure_footprint(options: argparse.Namespace) -> int:
    """Size, memory and start time, each beside its floor."""
    if options.in_device:
        print(json.dumps(rows.measure_footprint(options.build, options.modules, options.runs, options.memory_runs,
                                                options.settle)))
        return 0
    document(options.update, "make footprint")
    figures = in_new_device(options) | {"size": rows.sizes(options.build),
                                        "machine": report.machine(options.build)}
    tell(options, figures, report.footprint(figures), options.update, "make footprint")
    return 0

def build_commit(commit: str) -> str:
    """Builds another commit with this very bench, in build/compare/, and keeps it. Returns its build directory."""
    found = device.run("git", "log", "-1", "--format=%H %h %s", commit, directory=str(SOURCES)).stdout
    name, title = found.strip().split(" ", 1)
    place = SOURCES / "build/compare" / name
    (place / "sources").mkdir(parents=True, exist_ok=True)
    script = """exec >log 2>&1; set -ex
        git -C "$0" archive "$1" | tar -x -C sources; rm -rf sources/bench; cp -R "$0/bench" sources
        cmake -S sources -B build -G Ninja -DCMAKE_BUILD_TYPE=Release -DBUILD_TESTING=OFF
        cmake --build build --target quillon-bench-subjects"""
    if subprocess.run(["sh", "-c", script, SOURCES, name], cwd=place, check=False).returncode != 0:
        raise BenchError(f"{commit} does not build with this bench; all of it: {place}/log")
    print(f"base: {title}\n", flush=True)
    return str(place / "build")

def measure_speed(options: argparse.Namespace) -> int:
    """How fast it is, beside its limits or beside another build."""
    options.largest = (16 if options.quick else 256) * report.MIB
    if options.quick:
        options.rounds, options.long_rounds = min(options.rounds, 2), 1
    if options.in_device:
        device.boot()
        print(json.dumps(rows.compare_builds(options) if options.base else rows.measure(options)))
        return 0
    is_whole = not (options.quick or options.only or options.base or options.commit)
    page = f"{options.publish}/performance.md" if options.publish and is_whole else ""
    document(page, "make bench")
    if page and importlib.util.find_spec("matplotlib") is None:
        raise BenchError("the charts need matplotlib: apt-get install python3-matplotlib")
    base = build_commit(options.commit) if options.commit else options.base
    results = in_new_device(options, *(["--base", os.path.realpath(base)] if base else []))
    results["machine"] = report.machine(options.build)
    tell(options, results, (report.comparison if base else report.performance)(results), page, "make bench")
    if options.quick:
        print("a quick run only shows that all of it works: its figures say little", file=sys.stderr)
    if page:
        report.draw(results, f"{options.publish}/performance.svg")
    return MISSED if options.check and not all(row["met"] for row in results.get("rows", ())) else 0

def hold_counts(options: argparse.Namespace) -> int:
    """Instructions and allocations of the hot paths, held within 3 % of recorded counts."""
    if options.in_device:
        print(json.dumps(gate.count(options.build, options.emulated or options.build)))
        return 0
    here = gate.this_toolchain(options.emulated or options.build)
    preset = os.path.basename(options.emulated)
    file = pathlib.Path(options.recorded or SOURCES / f"bench/recorded-counts{preset and '-' + preset}.json")
    recorded = {"toolchain": here} if options.record else json.loads(file.read_text())
    if skip := gate.reason_to_skip(recorded["toolchain"], here,
                                   "" if options.emulated else pathlib.Path("/proc/cpuinfo").read_text()):
        print("bench-gate: skipped, " + skip)
        return 0
    counts = in_new_device(options)
    if options.record:
        write_json(str(file), {"toolchain": here, "paths": counts})
        print(f"bench-gate: recorded in {file}")
        return 0
    text, all_held = gate.hold(recorded["paths"], counts)
    print(text + ("bench-gate: all counts are within 3 % of the recorded ones" if all_held else
                  "bench-gate: counts are more than 3 % from the recorded ones. If the change is meant, for better or\n"
                  "worse, record it together with the code that makes it:\n  make bench-gate GATE_ARGS=--record"
                  f"{preset and ' ARCH=' + preset}"))
    return 0 if all_held else MISSED

def runs(text: str) -> int:
    """A number of runs on the command line."""
    if (number := int(text)) < 1:
        raise argparse.ArgumentTypeError("at least one is needed")
    return number

def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    verbs = parser.add_subparsers(required=True, metavar="footprint | speed | gate")

    def verb(name: str, work):
        added = verbs.add_parser(name, description=work.__doc__)
        added.set_defaults(work=work)
        added.add_argument("--build", default=str(SOURCES / "build/release"), help="default build/release")
        added.add_argument("--in-device", action="store_true", help="measure right here, in a device; says JSON")
        return added.add_argument

    add = verb("footprint", measure_footprint)
    add("--runs", type=runs, default=200, help="starts of each process; default %(default)s")
    add("--modules", type=int, nargs="+", default=[1, 10, 100, 1000], help="numbers of modules; default %(default)s")
    add("--memory-runs", type=runs, default=5, help="processes whose memory is read; default %(default)s")
    add("--settle", type=int, default=11000, help="ms from READY to reading memory; default %(default)s")
    add("--json", help="also write the figures to this file, as JSON")
    add("--update", help="also put the tables into this document")
    add = verb("speed", measure_speed)
    add("--rounds", type=runs, default=15, help="runs of what takes a second or less; default %(default)s")
    add("--long-rounds", type=runs, default=7, help="runs of what takes longer; default %(default)s")
    add("--quick", action="store_true", help="small images and few rounds: whether all works")
    add("--only", action="append", choices=rows.GROUPS, help="measure this group only; may be given several times")
    add("--base", help="compare with this build directory instead")
    add("--commit", help="compare with this commit instead, built with this very bench")
    add("--json", help="also write all figures to this file, as JSON")
    add("--publish", help="put tables and charts of a whole run into performance.md and .svg in this directory")
    add("--check", action="store_true", help="exit with 3 when a goal is missed")
    add = verb("gate", hold_counts)
    add("--emulated", default="", help="count in this build for another machine; --build is one for ours")
    add("--recorded", help="the recorded counts; default bench/recorded-counts.json, or those of the emulated preset")
    add("--record", action="store_true", help="write them instead")
    options = parser.parse_args()
    options.build = os.path.realpath(options.build)
    try:
        return options.work(options)
    except (BenchError, OSError) as error:
        print(f"bench: {error}", file=sys.stderr)
        return FAILED

if __name__ == "__main__":
    sys.exit(main())
