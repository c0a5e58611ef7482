# The two commands of the README: `make demo` and `make test`.
BUILD ?= build
FUZZ_SECONDS ?= 60
SANITIZE ?= OFF
JOBS ?= $(shell nproc)

.PHONY: all setup configure build test demo bench fuzz memcheck clean format

all: build

setup:
	@./scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_SANITIZE=$(SANITIZE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: configure
	@cmake --build $(BUILD) -j $(JOBS) --target tqble_cli
	@$(BUILD)/cli/tqble demo

bench: setup
	@cmake -S . -B build-release -DCMAKE_BUILD_TYPE=Release -DTQBLE_BUILD_TESTS=OFF >/dev/null
	@cmake --build build-release -j $(JOBS) --target tqble_bench
	@build-release/bench/tqble_bench

# Each libFuzzer harness for FUZZ_SECONDS, built with clang in build-fuzz.
fuzz: setup
	@FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) ./scripts/fuzz.sh

# Every test under valgrind (slow): a plain Debug build in build-memcheck.
memcheck: setup
	@cmake -S . -B build-memcheck -DCMAKE_BUILD_TYPE=Debug -DTQBLE_BUILD_BENCH=OFF >/dev/null
	@cmake --build build-memcheck -j $(JOBS)
	@cd build-memcheck && ctest -T memcheck -j $(JOBS) --output-on-failure

format:
	@clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	@rm -rf $(BUILD) build-release build-fuzz build-memcheck
