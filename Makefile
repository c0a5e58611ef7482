# The two commands of the README: `make demo` and `make test`.
BUILD ?= build
SANITIZE ?= OFF
JOBS ?= $(shell nproc)

.PHONY: all setup configure build test demo bench clean format

all: build

setup:
	@./scripts/setup.sh

configure: setup
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTQBLE_SANITIZE=$(SANITIZE) >/dev/null

build: configure
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

demo: build
	@$(BUILD)/cli/tqble demo

bench: build
	@$(BUILD)/bench/tqble_bench

format:
	@clang-format -i $$(git ls-files '*.h' '*.cpp')

clean:
	@rm -rf $(BUILD)
