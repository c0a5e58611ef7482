# The two commands of the README: `make demo` and `make test` (after ./scripts/setup.sh
# on a machine without make). Each configuration builds in a folder of its own, so
# switching never rebuilds another: build/ by default, build-asan/ with SANITIZE=ON,
# build-coverage/ with COVERAGE=ON, build-release/ for bench and package.
SANITIZE ?= OFF
COVERAGE ?= OFF
ifeq ($(SANITIZE),ON)
BUILD ?= build-asan
else ifeq ($(COVERAGE),ON)
BUILD ?= build-coverage
else
BUILD ?= build
endif
JOBS ?= $(shell nproc)
# The build tool's own makes inherit this: no "Entering directory" lines in the output.
MAKEFLAGS += --no-print-directory
FUZZ_SECONDS ?= 60
RELEASE = cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DTQBLE_BUILD_TESTS=OFF >/dev/null

RADIO_PACKAGES = qemu-system-x86 bluez bluez-test-tools busybox-static kmod cpio tshark

.PHONY: all setup configure build test demo bench package check-fresh test-tsan test-radio fuzz memcheck clean format

all: build

setup:
	@./scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_SANITIZE=$(SANITIZE) \
	  -DTQBLE_COVERAGE=$(COVERAGE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The bluez backend and `tqble post` against the real bluetoothd, in a qemu guest with two
# emulated controllers: no Bluetooth hardware needed (scripts/radio/run.sh).
test-radio: configure
	@./scripts/setup.sh $(RADIO_PACKAGES)
	@cmake --build $(BUILD) -j $(JOBS) --target tqble_cli tqble_radio
	@./scripts/radio/run.sh $(BUILD)

# The BlueZ suites, whose bus thread hands over to the main queue, under ThreadSanitizer.
test-tsan: setup
	@cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_TSAN=ON -DTQBLE_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-tsan -j $(JOBS) --target tqble_tests
	@cd build-tsan && ctest --output-on-failure -j $(JOBS) -R '^(Bus|Bluez|MainQueue)'

demo: configure
	@cmake --build $(BUILD) -j $(JOBS) --target tqble_cli
	@$(BUILD)/cli/tqble demo

# The benchmarks, with the BlueZ figures against python-dbusmock's stand-in bluetoothd on
# a private bus, beside bleak's on the same stand-in (bench/bluez_figures.py); the first
# answer on the bluez backend in a process of its own (the others need the simulator).
bench: setup
	@$(RELEASE)
	@cmake --build build-release -j $(JOBS) --target tqble_bench tqble_python tqble_cli
	@bench/bluez_standin.py bench/bluez_figures.py build-release/bench/tqble_bench
	@bench/bluez_standin.py build-release/bench/tqble_bench --benchmark_filter=BluezFirstAnswer
	@bench/cli_state_wall.sh build-release/cli/tqble
	@TQBLE_LOG=off PYTHONPATH=build-release/python /usr/bin/python3 python/bench/state_request.py \
	  build-release/bench/tqble_bench

# Debian packages libtqble1, libtqble-dev, tqble and python3-tqble in build-release/.
package: setup
	@$(RELEASE)
	@cmake --build build-release -j $(JOBS)
	@cd build-release && { cpack >cpack.log 2>&1 || { cat cpack.log; false; }; } && ls -1 $(CURDIR)/build-release/*.deb

# The two commands on a fresh minimal Debian 12 root, as root and as a user with sudo.
check-fresh:
	@./scripts/check-fresh-debian.sh

# Each libFuzzer harness for FUZZ_SECONDS, built with clang in build-fuzz.
fuzz: setup
	@FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) ./scripts/fuzz.sh

# Every test under valgrind (slow), in build-memcheck, optimised as `make test` builds:
# the optimiser may test a value before the flag that says it was written (a copied empty
# std::optional), which valgrind reports only in optimised code. Three examples, the CLI's
# client commands and the Python suites wait for answers in real time, and valgrind's
# slowdown outlasts their time-outs: they are left to `make test`.
REAL_TIME_TESTS = ^(Examples\.(read_state|charging_session|export_history)|CommandLineTool\.(Asks|Watches)|Python\.)
memcheck: setup
	@cmake -S . -B build-memcheck -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-memcheck -j $(JOBS)
	@cd build-memcheck && ctest -T memcheck -j $(JOBS) --output-on-failure -E '$(REAL_TIME_TESTS)'

format:
	@clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	@rm -rf build build-asan build-coverage build-release build-tsan build-fuzz build-memcheck
