# The two commands of the README: `make demo` and `make test`.
BUILD ?= build
SANITIZE ?= OFF
JOBS ?= $(shell nproc)
RADIO_PACKAGES = qemu-system-x86 bluez bluez-test-tools busybox-static kmod cpio

.PHONY: all setup configure build test test-tsan test-radio demo bench clean format

all: build

setup:
	@./scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_SANITIZE=$(SANITIZE) >/dev/null

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
	@cd build-tsan && ctest --output-on-failure -j $(JOBS) -R '^(Bus|Bluez)'

demo: configure
	@cmake --build $(BUILD) -j $(JOBS) --target tqble_cli
	@$(BUILD)/cli/tqble demo

bench: setup
	@cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DTQBLE_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-release -j $(JOBS) --target tqble_bench
	@build-release/bench/tqble_bench

format:
	@clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	@rm -rf $(BUILD) build-release build-tsan
