# A thin front for people; CMake does the work. Each target does all of its own set-up.

BUILD := build/dev

.PHONY: help demo test build check lint sanitize clean

help:
	@echo "make demo      boot a virtual device and update three modules from a USB stick"
	@echo "make test      build and run every test"
	@echo "make check     test, lint and sanitizers, as before a release"
	@echo "make lint      clang-format, clang-tidy, shellcheck, man pages"
	@echo "make sanitize  every test under Address-, UndefinedBehavior- and ThreadSanitizer"
	@echo "make clean     remove build/"

build:
	@packaging/install-dependencies
	@cmake --preset dev -G Ninja $(CMAKE_ARGS)
	@cmake --build --preset dev

demo: build
	@$(BUILD)/bin/quillon-device run -- examples/demo/demo.sh $(BUILD)

test: build
	@ctest --preset dev -j 4

lint:
	@packaging/install-dependencies lint
	@cmake --preset dev -G Ninja $(CMAKE_ARGS) >/dev/null
	@.ci/lint $(BUILD)

sanitize:
	@packaging/install-dependencies lint
	@for preset in asan-ubsan tsan; do \
	    cmake --preset $$preset -G Ninja $(CMAKE_ARGS) && cmake --build --preset $$preset && \
	    ctest --preset $$preset -j 4 || exit 1; \
	done

check: test lint sanitize

clean:
	rm -rf build
