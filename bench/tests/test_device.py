"""That what is measured does the work that its row says. Runs within a virtual device."""
import os
import pathlib
import shutil
import sys
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent))

import bench
import device
from device import BenchError, Service, Started, run, variable
from workshop import VERIFIER, SlowMedium, Swupdate, Workshop

BUILD = os.environ["QUILLON_BUILD"]
DO_NOTHING, TINY, SINK = (f"{BUILD}/bench/{name}" for name in ("do-nothing", "tiny-module.so", "sink-module.so"))

def libraries_of(program: str) -> set[str]:
    """The libraries that a program is linked with, but for the dynamic linker."""
    return {line.rsplit("[", 1)[1].rstrip("]") for line in run("readelf", "-dW", program).stdout.splitlines()
            if "(NEEDED)" in line and "[ld-" not in line}

class Processes(unittest.TestCase):
    def test_tell_their_time_until_they_were_ready_and_end_with_their_block(self):
        with variable("WATCHDOG_USEC", 1), Started(
                "/bin/sh", "-c", f'sleep 0.2; [ "$WATCHDOG_USEC" ] || exec {DO_NOTHING}') as process:
            self.assertGreaterEqual(process.wait_until_ready(), 200)
        self.assertRaises(ProcessLookupError, os.kill, process.pid, 0)
        with Started("/bin/true") as process:
            self.assertRaisesRegex(BenchError, "ended before", process.wait_until_ready)

    def test_take_the_time_until_their_word_and_that_of_their_children(self):
        began = time.monotonic()
        taken = device.run_until_it_says(
            ["sh", "-c", "(for i in $(seq 200000); do :; done); echo done; sleep 1; exit 1"], "/", "done")
        self.assertGreater(taken.cpu, 0.01)
        self.assertLess(taken.wall, time.monotonic() - began - 0.1)  # it sleeps for a second afterwards
        self.assertRaises(BenchError, device.run_until_it_says, ["echo", "nothing"], "/", "done")

    def test_stay_on_the_processor_that_they_are_placed_on(self):
        with device.on_first_processor(), Started(DO_NOTHING) as process:
            self.assertEqual(os.sched_getaffinity(process.pid), {device.PROCESSORS[0]})
            device.place_on(process.pid, device.PROCESSORS[-1])
            self.assertEqual(os.sched_getaffinity(process.pid), {device.PROCESSORS[-1]})
        self.assertEqual(sorted(os.sched_getaffinity(0)), device.PROCESSORS)

    def test_touch_nothing_outside_of_a_virtual_device(self):
        name = os.environ.pop("QUILLON_DEVICE")
        self.addCleanup(os.environ.__setitem__, "QUILLON_DEVICE", name)
        for work in (device.boot, device.forget_earlier_service, lambda: Workshop(BUILD),
                     lambda: device.install_modules(TINY, 0)):
            self.assertRaises(BenchError, work)

class Floor(unittest.TestCase):
    def test_has_the_libraries_of_the_service_of_which_we_share_those_of_c_only(self):
        service = libraries_of(BUILD + "/bin/quillon-service")
        self.assertEqual(libraries_of(DO_NOTHING) ^ service, {"libquillon-platform.so.0", "libsystemd.so.0"})
        maps = pathlib.Path("/proc/self/maps").read_text()  # with all of bench
        self.assertLessEqual({name for name in service if "/" + name in maps}, {"libc.so.6", "libgcc_s.so.1"})

    def test_opens_the_modules_of_the_directory_that_it_is_given(self):
        device.install_modules(TINY, 2)
        with Started(DO_NOTHING, device.MODULES) as process:
            process.wait_until_ready()
            self.assertIn("module0002.so", pathlib.Path(f"/proc/{process.pid}/maps").read_text())
        shutil.copy(next(pathlib.Path("/lib").glob("*/libm.so.6")), device.MODULES)
        with Started(DO_NOTHING, device.MODULES) as process:
            self.assertRaises(BenchError, process.wait_until_ready)

    def test_gets_its_runs_beside_the_service(self):
        figures = bench.rows.measure_footprint(BUILD, [0, 2], 1, 1, 100)
        for kind, counts in (("start", (0, 2)), ("memory", (10,))):
            self.assertEqual([(taken["modules"], taken["process"]) for taken in figures[kind]],
                             [(count, process) for count in counts for process in bench.report.LABELS])

class DrivenService(unittest.TestCase):
    PAYLOAD = 200000

    def setUp(self):
        device.boot()
        device.install_modules(SINK, 1)
        self.workshop = self.enterContext(Workshop(BUILD))
        self.stick = self.workshop.stick(1)
        self.image = self.workshop.put_image(self.stick, self.PAYLOAD)
        self.workshop.install("ours")

    def service(self) -> Service:
        service = self.enterContext(Service(BUILD))
        service.use_stick(self.stick)
        return service

    def test_updates_into_the_file_that_its_module_is_told_as_fast_as_that_takes_it(self):
        target = self.workshop.directory + "/target"
        with variable("QUILLON_BENCH_TARGET", target), variable("QUILLON_BENCH_FLASH", 1000000):
            service = self.service()
        self.assertGreaterEqual(service.update().wall, 0.2)
        self.assertGreater(service.memory()["peak"] * 1024, 2 * self.PAYLOAD)
        self.assertGreater(service.waits(), 0)
        run("cmp", target, self.workshop.payload(self.PAYLOAD))

    def test_refuses_an_unsigned_image_unless_nobody_looks(self):
        os.unlink("/etc/quillon/trusted-keys/bench.pem")
        for verifier in ("ours", "by path"):
            self.workshop.install(verifier)
            self.assertEqual(b"verifyDigest" in pathlib.Path(VERIFIER).read_bytes(), verifier == "ours")
            self.assertRaises(BenchError, self.service().estimate)
        for verifier in ("none", "trivial"):
            self.workshop.install(verifier)
            self.assertGreater(self.service().estimate().cpu, 0)

    def test_answers_beside_a_process_that_gives_every_record_back(self):
        self.service()
        with Started(BUILD + "/bench/queues", "echo", *bench.rows.ECHO_QUEUES):
            times = bench.rows.round_trips(BUILD, 2, *device.SERVICE_QUEUES, *bench.rows.ECHO_QUEUES)
        self.assertEqual([len(taken) for taken in times], [2 * bench.rows.QUESTIONS_IN_A_ROW] * 2)
        self.assertGreater(min(map(min, times)), 0)

    def test_is_held_against_what_does_the_very_same_work(self):
        for size in (1, 9000, 10240, 300000):
            with variable("QUILLON_BENCH_FILE", self.workshop.put_image(self.stick, size)):
                run(BUILD + "/bench/kernels", "--compare")
        self.assertGreater(bench.rows.kernel_time(BUILD, "decipher/plain", self.image), 0)
        for kernel, file in (("no/such", self.image), ("decipher/plain", self.workshop.payload(560))):
            self.assertRaises(BenchError, bench.rows.kernel_time, BUILD, kernel, file)

    def test_updates_many_modules(self):
        said = bench.rows.many_modules(BUILD, 3)
        self.assertTrue(0.006 <= said["ownSeconds"] <= said["seconds"], said)

    @unittest.skipUnless(Swupdate.is_installed(), "swupdate or cpio is not installed")
    def test_stands_beside_swupdate(self):
        for while_reading in (False, True):
            image = Swupdate(self.workshop.payload(100001), self.workshop.directory + "/s", while_reading)
            self.assertGreater(image.install(100).cpu, 0)

    @unittest.skipUnless(SlowMedium.is_possible(), "no python3-fusepy or no FUSE")
    def test_meets_a_medium_that_takes_its_time_once_and_the_cache_none(self):
        place, size = pathlib.Path("/opt/media/slow", os.path.basename(self.image)), os.path.getsize(self.image)
        with SlowMedium(self.stick, str(place.parent), 1e6) as medium:
            for reads in (1, 1, 2):
                if reads == 2:
                    self.assertEqual(device.drop_from_cache(str(place)), 0)
                began = time.monotonic()
                self.assertEqual(len(place.read_bytes()), size)
                self.assertAlmostEqual(medium.busy(), reads * size / 1e6, delta=0.02)
            self.assertGreaterEqual(time.monotonic() - began, 0.19)
        self.assertFalse(place.exists())

if __name__ == "__main__":
    unittest.main()
