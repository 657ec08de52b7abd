"""That figures, verdicts, tables, charts, documents and counts say what was measured."""
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import unittest

BENCH = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(BENCH))

import bench
import device
import gate
import report
import rows
from device import BenchError, memory_of

def start(process: str, median: float) -> dict:
    return {"modules": 1, "process": process,
            "time": {"median": median, "least": median - 1, "p95": median + 1, "runs": 200}}

class Statistics(unittest.TestCase):
    def test_tell_median_least_nearest_rank_and_number_of_runs(self):
        self.assertEqual(report.spread([3, 1, 2, 50]), {"median": 2.5, "least": 1, "p95": 50, "runs": 4})
        self.assertEqual([report.percentile(range(20, 0, -1), of) for of in (0.1, 95, 96, 100)], [1, 19, 20, 20])

    def test_every_other_turn_goes_the_other_way_round_and_the_first_does_not_count(self):
        order: list[str] = []
        samples = report.in_turns(2, *(lambda name=name: order.append(name) or len(order) for name in "abc"))
        self.assertEqual("".join(order), "abc" "abccba")
        self.assertEqual(samples, [[4, 9], [5, 8], [6, 7]])

    def test_are_of_what_kernel_and_programs_say(self):
        self.assertEqual(memory_of("0-1 [rollup]\nRss: 12 kB\nPss: 9 kB\nPrivate_Clean: 6 kB\n"
                                   "Private_Dirty: 1 kB\nAnonymous: 2 kB\n", "Name: x\nVmHWM: 15 kB\n"),
                         {"resident": 12, "proportional": 9, "unshared": 7, "anonymous": 2, "peak": 15})
        said = '{"benchmarks": [{"real_time": 12.5, "time_unit": "%s"%s}]}'
        self.assertEqual(rows.milliseconds_in(said % ("ms", "")), 12.5)
        for wrong in ("", '{"benchmarks": []}', said % ("ns", ""),
                      said % ("ms", ', "error_occurred": true, "error_message": "why"')):
            self.assertRaises(BenchError, rows.milliseconds_in, wrong)
        self.assertEqual(rows.speed_in("+H:16384\n+F:25:AES-256-CBC:6768212059.70\n"), 6768212059.7)
        self.assertRaises(BenchError, rows.speed_in, "+H:16384\n")
        self.assertEqual(gate.number_after("Collected :", "==7== Collected : 483507\n==7==\n"), 483507)
        self.assertRaises(BenchError, gate.number_after, "Collected :", "==7== Killed\n")

class Tables(unittest.TestCase):
    def test_tell_each_row_with_the_verdict_of_its_own_side_of_the_limit(self):
        verdicts = [(1.6, "at least", 1.6, True), (1.59, "at least", 1.6, False),
                    (0.6, "at most", 0.6, True), (123.4, "at most", 12.34, False)]
        results = {"machine": "A processor", "rows": [report.Row(
            "work", "reference", "times as fast", *verdict[:3], "1 ms; 2").to_json() for verdict in verdicts]}
        self.assertEqual([line["met"] for line in results["rows"]], [verdict[3] for verdict in verdicts])
        text = report.performance(results)
        self.assertIn("Measured on: A processor.\n", text)
        self.assertIn("| work | reference (1 ms; 2) | 1.60 times as fast | ≥ 1.60 | met |\n", text)
        self.assertIn("| 123 times as fast | ≤ 12.3 | **missed** |\n", text)
        self.assertTrue(text.endswith("\n2 of 4 goals met.\n"))

    def test_tell_parts_shares_and_ratios(self):
        text = report.performance({
            "machine": "", "rows": [], "boundsImageBytes": 2097152,
            "bounds": [{"setting": "slow", "modules": 10, "phase": "update", "seconds": 2, "medium": 1.5,
                        "processor": 0.5, "plugin": 0, "bound": rows.bound_of(1.5, 0.5, 0)}],
            "decipheringParts": {"bytes": 16777216, "whole": 10, "reading": 4, "memory": 2.5, "cipher": 3}})
        self.assertIn("| slow | update | 10 | 2.000 | 75 % | 25 % | 0 % | medium |\n", text)
        self.assertIn("| these three together | 9.5 | 95 % |\n", text)
        self.assertEqual([rows.bound_of(*busy) for busy in ((1, 2, 1), (1, 2, 3))], ["processor", "plug-in"])
        self.assertIn("| start | 8.00 ms | 6.00 ms | 0.750 |\n", report.comparison({
            "machine": "", "comparison": [{"work": "start", "unit": "ms", "base": 8, "here": 6}]}))

    def test_hold_the_start_against_the_floor_with_the_modules_opened(self):
        kib = {"median": 12288, "least": 11264, "p95": 13312, "runs": 5}
        text = report.footprint({
            "machine": "M", "settle": 11000, "size": [{"file": "do-nothing", "bytes": 14336}],
            "memory": [{"modules": 10, "process": process} | dict.fromkeys(report.KINDS, kib)
                       for process in report.LABELS],
            "start": [start("service", 6), start("floor", 3), start("modules-floor", 4)]})
        for line in ("| floor | 14.0 | 14336 |\n", "| `quillon-service` | 12.00 (11.00–13.00) | 12.00 (11.00–13.00) |",
                     "idle with 10 modules, 11.0 s after READY; median (least–95th percentile) of 5",
                     "modules opened, 13.50 MiB: met.", "| 2.00 | 1.50 | ≤ 6.20 | met |\n"):
            self.assertIn(line, text)

class Documents(unittest.TestCase):
    def test_get_new_figures_for_the_old_ones(self):
        for target, page in (("make bench", "performance.md"), ("make footprint", "footprint.md")):
            before = (BENCH.parent / "docs" / page).read_text()
            once = report.with_figures(before, target, "new\n")
            self.assertIn("writes them) -->\n\nnew\n\n<!-- figures: end -->\n", once)
            self.assertEqual(once.partition("<!--")[0], before.partition("<!--")[0])
            self.assertEqual(report.with_figures(once, target, "new\n"), once)

    def test_without_their_markers_are_refused_before_anything_is_measured(self):
        begin, end = "<!-- figures: begin (make bench writes them) -->\n", "<!-- figures: end -->\n"
        for text in ("text\n", begin, end + begin):
            self.assertRaises(BenchError, report.with_figures, text, "make bench", "new\n")
        with tempfile.TemporaryDirectory() as directory:
            pathlib.Path(directory, "performance.md").write_text("no markers")
            done = subprocess.run([str(BENCH / "bench.py"), "speed", "--publish", directory, "--build", directory],
                                  text=True, capture_output=True, check=False)
        self.assertEqual(done.returncode, bench.FAILED)
        self.assertIn("the document has no lines", done.stderr)

class Charts(unittest.TestCase):
    def test_are_made_of_what_was_measured_and_drawn_the_same_each_time(self):
        results = {
            "deciphering": [{"bytes": 16777216, "service": 10, "plain": 15, "goal": 1.5},
                            {"bytes": 67108864, "service": 40, "plain": 60, "goal": 0}],
            "start": [start("service", 6), start("floor", 4), start("modules-floor", 5)],
            "bounds": [{"setting": "in the page cache", "phase": phase, "modules": 1, "seconds": seconds}
                       for phase, seconds in (("estimate", 0.01), ("update", 9))]}
        self.assertEqual([list(chart.lines.values()) for chart in report.charts_of(results)], [
            [[(16, 10), (64, 40)], [(16, 15), (64, 60)], [(16, 10)]], [[(1, 6)], [(1, 5)], [(1, 7.5)]],
            [[(1, 0.01)], [], []]])
        with tempfile.TemporaryDirectory() as directory:
            os.environ["MPLCONFIGDIR"] = directory
            try:
                report.draw(results, directory + "/1.svg")
            except ImportError:
                self.skipTest("python3-matplotlib is not installed")
            report.draw(results, directory + "/2.svg")
            first, second = (pathlib.Path(directory, name).read_text() for name in ("1.svg", "2.svg"))
        self.assertEqual(first, second)
        self.assertIn("limit: that × 1.3 + 1 ms", first)

class Counts(unittest.TestCase):
    def test_are_held_within_three_percent_in_either_direction(self):
        for recorded, counted, held in (
                ((1000, 100), (1030, 103), True), ((1000, 100), (970, 97), True), ((1000, 0), (1000, 0), True),
                ((1000, 100), (1031, 100), False), ((1000, 100), (969, 100), False), ((1000, 8), (1000, 9), False),
                ((1000, 0), (1000, 1), False), (None, (0, 0), False), ((0, 0), None, False)):
            text, all_held = gate.hold(*({"a path": dict(zip(("instructions", "allocations"), of))} if of else {}
                                         for of in (recorded, counted)))
            self.assertEqual((all_held, "NOT HELD" in text), (held, not held), (recorded, counted))

    def test_tell_what_the_checksum_takes_without_carry_less_multiply(self):
        text, _ = gate.hold({}, {f"checksum by {kernel}, 1 MiB": {"instructions": of, "allocations": 0}
                                 for kernel, of in (("folding", 1000), ("slicing", 10260))})
        self.assertTrue(text.endswith("\nchecksum by slicing: 10.3 times as many instructions as by folding\n"))

    def test_say_something_only_with_the_recorded_toolchain(self):
        here = gate.this_toolchain(os.environ["QUILLON_BUILD"]) | {"architecture": "x86_64"}
        flags = "flags : fpu aes pclmulqdq ssse3\n"
        self.assertTrue(all(here.values()), here)
        self.assertEqual(gate.reason_to_skip(here, here, flags), "")
        for recorded, this, cpuinfo, reason in (
                (here | {"compiler": "GCC 3.4"}, here, flags, f": compiler {here['compiler']} instead of GCC 3.4"),
                (here, here, "flags : fpu\n", "no aes"), (here, here | {"architecture": "arm"}, flags, "for x86_64,")):
            self.assertIn(reason, gate.reason_to_skip(recorded, this, cpuinfo))

    def test_of_another_machine_depend_on_its_c_library_and_the_emulator(self):
        with tempfile.TemporaryDirectory() as directory:
            device.run("sh", "-ec", """mkdir -p usr/include bench
                printf '#!/bin/sh\\necho qemu-arm version 6.1.9 "(Debian 1:6.2)"\\n' >qemu && chmod +x qemu
                printf '/* __GLIBC_MINOR__ 9 */\\n#define\\t__GLIBC_MINOR__\\t31\\n' >usr/include/features.h
                printf '{"architecture": "arm", "compiler": "GCC 3.4.5", "emulator": "%s/qemu;-L;%s"}' "$PWD" "$PWD" \
                    >bench/toolchain.json""", directory=directory)
            here = gate.this_toolchain(directory)
        self.assertEqual(here, {"architecture": "arm", "compiler": "GCC 3.4", "C library": "2.31", "QEMU": "6.1"})
        self.assertEqual(gate.reason_to_skip(here, here, ""), "")
        self.assertIn("QEMU 6.1 instead of 5.2", gate.reason_to_skip(here | {"QEMU": "5.2"}, here, ""))

    def test_are_written_as_they_are_read(self):
        for recorded in BENCH.glob("recorded-counts*.json"):
            with tempfile.NamedTemporaryFile("r") as file:
                bench.write_json(file.name, dict(reversed(json.loads(recorded.read_text()).items())))
                self.assertEqual(file.read(), recorded.read_text())

if __name__ == "__main__":
    unittest.main()
