# A thin front for people; CMake does the work. Each target does all of its own set-up.

BUILD := build/dev
PREFIX ?= /usr

.PHONY: help demo test build check check-all lint sanitize cross footprint bench bench-compare bench-gate package package-test docs system-test machine-test install clean

help:
	@echo "make demo      boot a virtual device and update three modules from a USB stick"
	@echo "make test      build and run every test"
	@echo "make check     test, lint and sanitizers, as before a release"
	@echo "make check-all make check, cross, docs, install, package-test and machine-test, with each test on"
	@echo "               every machine and sanitizer"
	@echo "make lint      clang-format, clang-tidy, shellcheck, pyflakes, man pages, width of pages"
	@echo "make sanitize  every test under Address- and UndefinedBehaviorSanitizer, those with threads"
	@echo "               under ThreadSanitizer"
	@echo "make cross     build for arm64 and armhf, and run under emulation what a machine decides"
	@echo "make package   Debian packages into build/package/, looked at by lintian; with ARCH=arm64 or"
	@echo "               armhf cross-built, into build/package-ARCH/"
	@echo "make package-test ARCH=arm64  install them on a root of their own under emulation, use and purge"
	@echo "               them; or armhf"
	@echo "make docs      the documents as HTML, with manual pages and API, in build/docs/"
	@echo "make system-test  install the packages on a booted Debian and hold them to their promises"
	@echo "make machine-test  plug sticks into an emulated machine with a real kernel, and pull them"
	@echo "make footprint size, memory and start time, each beside its floor, in build/footprint.json"
	@echo "make bench     how fast it is, each figure beside its limit, in docs/performance.md"
	@echo "make bench-compare BASE=COMMIT  the same work with another commit, in turns"
	@echo "make bench-gate  instructions and allocations of the hot paths, held to 3 %; with ARCH=arm64"
	@echo "               or armhf under emulation"
	@echo "make install  a release build into \$$(DESTDIR)\$$(PREFIX); PREFIX is /usr unless given"
	@echo "make clean     remove build/"

build:
	@packaging/install-dependencies
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev

demo:
	@begin=$$(date +%s) && packaging/install-dependencies && packages=$$(date +%s) && \
	cmake --preset dev -G Ninja $(CMAKE_ARGS) && \
	cmake --build --preset dev --target demo-programs && built=$$(date +%s) && \
	$(BUILD)/bin/quillon-device run -- examples/demo/demo.sh $(BUILD) && \
	echo "ready after $$((built - begin)) s, of which $$((packages - begin)) s packages," \
	    "$$((built - packages)) s build"

test: build
	@ctest --preset dev -j 4

lint:
	@packaging/install-dependencies lint
	@cmake --preset dev -G Ninja $(CMAKE_ARGS) >/dev/null
	@.ci/lint $(BUILD) $(ANALYZER)

PRODUCTS := src/all platform/all helpers/all client/all tools/all examples/modules/all
# check-all empties these two, and has everything built and run.
CROSS_TESTS ?= machine
TSAN_TESTS ?= thread

# More at a time than there are processors: under a sanitizer a service ends in order, and so at its
# next tick, which many tests wait for.
sanitize:
	@packaging/install-dependencies lint
	@cmake --preset asan-ubsan -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset asan-ubsan
	@ctest --preset asan-ubsan -j 10
	@cmake --preset tsan -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset tsan $(TSAN_TESTS:%=--target quillon-%-tests)
	@ctest --preset tsan -j 10 $(TSAN_TESTS:%=-L %)

cross:
	@packaging/install-dependencies cross
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev --target quillon-device
	@for architecture in arm64 armhf; do \
	    packaging/make-sysroot $$architecture && \
	    cmake --preset $$architecture -G Ninja $(CMAKE_ARGS) && \
	    cmake --build --preset $$architecture \
	        $(CROSS_TESTS:%=--target $(PRODUCTS) quillon-%-tests) && \
	    tests/run-emulated $$architecture -j 2 $(CROSS_TESTS:%=-L %) && \
	    $(MAKE) --no-print-directory bench-gate ARCH=$$architecture || exit 1; \
	done

docs:
	@packaging/install-dependencies docs
	@docs/html/make build/docs
	@echo "build/docs/index.html"

# Status 77: this machine cannot boot a root, which the test says itself.
system-test: package
	@packaging/install-dependencies system-test
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev --target example-modules
	@tests/boot/run build/package $(BUILD) || { [ $$? = 77 ] && [ -z "$$SYSTEM_TEST_REQUIRED" ]; }

# Status 77: the emulated machine is another one than the packages are for, which the test says itself.
machine-test: package
	@packaging/install-dependencies machine-test
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev --target example-modules
	@tests/machine/run build/package $(BUILD) || [ $$? = 77 ]

check: test lint sanitize

# The analyzer follows every call, which takes three times as long. Without precompiled headers, an
# include that a test has forgotten is noticed.
check-all:
	@$(MAKE) test lint ANALYZER=deep
	@$(MAKE) sanitize cross TSAN_TESTS= CROSS_TESTS= \
	    CMAKE_ARGS="$(CMAKE_ARGS) -DCMAKE_DISABLE_PRECOMPILE_HEADERS=ON -DQUILLON_SANITIZE_TESTS=ON \
	    -DQUILLON_MACHINE_TESTS_ONLY=OFF"
	@$(MAKE) install DESTDIR="$(CURDIR)/build/installed"
	@$(MAKE) docs package-test machine-test

footprint:
	@packaging/install-dependencies
	@cmake --preset release -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset release --target quillon-footprint-subjects
	@bench/bench.py footprint --json build/footprint.json $(FOOTPRINT_ARGS)

# BENCH_ARGS=--quick only shows that all of it works.
bench:
	@packaging/install-dependencies bench
	@cmake --preset release -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset release --target quillon-bench-subjects
	@bench/bench.py speed --json build/bench.json --publish docs $(BENCH_ARGS)

bench-compare:
	@packaging/install-dependencies bench
	@cmake --preset release -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset release --target quillon-bench-subjects
	@bench/bench.py speed --commit $(or $(BASE),HEAD~1) $(BENCH_ARGS)

# Of the command line only: kernel builds export a variable of that name.
ifeq ($(origin ARCH),command line)
package:
	@packaging/install-dependencies cross-package
	@packaging/build-packages $(ARCH)

# Status 77: this machine cannot emulate another one's root, which the test says itself.
package-test: package
	@tests/release/emulated-package-test $(ARCH) || { [ $$? = 77 ] && [ -z "$$SYSTEM_TEST_REQUIRED" ]; }

bench-gate:
	@packaging/install-dependencies cross
	@packaging/make-sysroot $(ARCH)
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev --target quillon-emulation-subjects
	@cmake --preset $(ARCH) -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset $(ARCH) --target quillon-gate-subjects
	@bench/bench.py gate --build $(BUILD) --emulated build/$(ARCH) $(GATE_ARGS)
else
package:
	@packaging/install-dependencies package
	@packaging/build-packages

package-test:
	@for architecture in arm64 armhf; do \
	    $(MAKE) --no-print-directory package-test ARCH=$$architecture || exit 1; \
	done

bench-gate:
	@packaging/install-dependencies bench-gate
	@cmake --preset release -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset release --target quillon-gate-subjects
	@bench/bench.py gate $(GATE_ARGS)
endif

# DESTDIR is CMake's own; it is the root of an image, or empty for this machine.
install:
	@packaging/install-dependencies
	@cmake --preset release -G Ninja -DBUILD_TESTING=OFF -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_ARGS)
	@cmake --build --preset release
	@DESTDIR="$(DESTDIR)" cmake --install build/release

clean:
	rm -rf build
