# The day's commands. `make run` and `make test` do all set-up.

BUILD ?= build
JOBS ?= $(shell nproc)
# Interpreters to test with, by the names that `tools/interpreters list` prints; empty: all of them.
PYTHONS ?=

# Interpreters that `make test` gets when they are missing; see `tools/interpreters`.
INTERPRETERS ?= 3.14 3.15 3.14-debug

.PHONY: help setup build run test test-all test-cpp test-python asan bench bench-units tests-built some-interpreters \
        interpreters clean

help:  ## list the targets
	@grep -E '^[a-z-]+:.*## ' $(MAKEFILE_LIST) | sed -E 's/:.*## /\t/' | expand -t 16

setup:  ## install missing system packages, or say which
	@tools/setup test

build:  ## compile build/optmonitoring.so
	@tools/setup build
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@cmake --build $(BUILD) --target optmonitoring -j $(JOBS)

run: build  ## debug real programs under the filter and show what happened
	@python="$$(tools/choose_python)" && $$python examples/filter_demo.py --module-dir $(BUILD)

tests-built: $(if $(PYTHONS),,some-interpreters)
	@tools/setup test
	@cmake -S . -B $(BUILD) -G Ninja "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

some-interpreters:
	@tools/setup build
	@tools/interpreters install $(INTERPRETERS) || echo "Not all could be had; the tests go on with those that are here."

test-all:  ## the same, and insist on the whole matrix of interpreters
	@tools/setup test
	@tools/interpreters install --all
	@tools/interpreters check
	@$(MAKE) --no-print-directory test INTERPRETERS=3.14 PYTHONS=

test: tests-built  ## run all tests in every interpreter found
	@tools/run_ctest $(BUILD)

test-cpp: tests-built  ## the C++ tests only
	@tools/run_ctest $(BUILD) -R '^cpp_'

test-python: tests-built  ## the Python tests only
	@tools/run_ctest $(BUILD) -R '^py_'

asan:  ## the C++ tests that need no interpreter, under ASan and UBSan
	@tools/setup test
	@cmake -S . -B $(BUILD)-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DOPTMONITORING_SANITIZE=ON >/dev/null
	@cmake --build $(BUILD)-asan --target plain_tests -j $(JOBS)
	@cd $(BUILD)-asan && ctest -R '^cpp_plain' --output-on-failure

bench: build  ## what an event costs on every road, instructions and times (some minutes an interpreter)
	@tools/setup test
	@python3 bench/run_bench.py --module-dir $(BUILD)

bench-units:  ## the benchmarks of the hash table and the registry
	@tools/setup build && tools/setup bench
	@cmake -S . -B $(BUILD)-bench -G Ninja -DOPTMONITORING_TESTS=OFF -DOPTMONITORING_BENCH=ON >/dev/null
	@cmake --build $(BUILD)-bench -j $(JOBS)
	@$(BUILD)-bench/bench/dbgtracerhash_bench
	@$(BUILD)-bench/bench/fileops_bench

interpreters:  ## list the interpreters found
	@tools/interpreters list

clean:  ## remove the build folders
	rm -rf $(BUILD) $(BUILD)-*
