# Everyday commands. `make run` and `make test` do all set-up.

BUILD ?= build
JOBS ?= $(shell nproc)
# Interpreters to test with, by the names that `tools/interpreters list` prints; empty: all of them.
PYTHONS ?=

# Interpreters that `make test` gets when they are missing; see `tools/interpreters`.
INTERPRETERS ?= 3.14 3.15 3.14-debug

# Those of other machines, for `make test-aarch64` and `make test-musl`.
AARCH64_INTERPRETERS ?= 3.13-aarch64 3.14-aarch64 3.15-aarch64
MUSL_INTERPRETERS ?= 3.13-musl

# How long `make fuzz` fuzzes each unit.
FUZZ_SECONDS ?= 60

# How long `make storm` goes on, and in which interpreters: those that can run without their lock.
STORM_SECONDS ?= 3600
STORM_PYTHONS ?= $(shell tools/interpreters list --cmake --min 3.13 | awk -F'|' '$$3 == "freethreaded" { print $$4 }')

# How long `make tsan-storm` lets each kind of storm go on.
TSAN_SECONDS ?= 60

# Interpreters to run under the sanitizers: the first one with sys.monitoring, or those named.
WATCHED_PYTHONS ?= $(or $(PYTHONS),$(shell tools/interpreters list --cmake --min 3.12 | \
                     awk -F'|' '$$3 == "release" { print $$1; exit }'))

# Free-threaded ones, which run the threads' tests as well.
WATCHED_THREADS ?= $(shell tools/interpreters list --cmake --min 3.12 | awk -F'|' '$$3 == "freethreaded" { print $$1 }')

# Those to run the debugger's tests under: the first from 3.14 on, or those named.
WATCHED_HOSTS ?= $(or $(PYTHONS),$(shell tools/interpreters list --cmake --min 3.14 | \
                   awk -F'|' '$$3 == "release" { print $$1; exit }'),$(WATCHED_PYTHONS))

# Sessions of the debugger that work the module hardest; what only the prompt does is the same without a sanitizer.
WATCHED_SESSIONS = files|fork|log|own_errors|stops|switching|threads|conditions|evaluation

.PHONY: help setup build run demo test test-long test-one test-all test-cpp test-python test-brixdebug test-life test-adapter \
        test-reference storm test-editors test-aarch64 test-musl test-machines cpython-suites wheel wheels vsix types inject fuzz \
        asan tsan tsan-storm valgrind bench bench-quick bench-host bench-adapter bench-growth bench-scale bench-units bench-debugpy \
        bench-pandas bench-docs \
        tests-configured tests-built some-interpreters interpreters fresh clean lint format hooks coverage

help:  ## list the targets
	@awk -F ':.*## ' '/^##@ / { printf "%s%s\n", gap, substr($$0, 5); gap = "\n" } \
	    gap && /^[a-z0-9-]+:.*## / { printf "  %-16s %s\n", $$1, $$2 }' $(MAKEFILE_LIST)

##@ Try it

run: build  ## debug a real, threaded program and show the session
	@python="$$(tools/choose_python)" && $$python examples/debug_session.py --module-dir $(BUILD)

demo: build  ## run real programs under the bare filter and show how many events it let through
	@python="$$(tools/choose_python)" && $$python examples/filter_demo.py --module-dir $(BUILD)

##@ Build it

build:  ## compile build/optmonitoring.so
	@tools/setup build
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@cmake --build $(BUILD) --target optmonitoring -j $(JOBS)

wheel:  ## make the package: the sdist and the one wheel, in build/package/dist
	@tools/setup package
	@BUILD=$(BUILD) tools/make_wheel

wheels:  ## the sdist and a wheel for each machine, in build/package/wheels; each is used in an interpreter of its kind
	@tools/setup test && tools/setup package && tools/setup aarch64 && tools/setup musl && tools/setup interpreters
	@tools/choose_python >/dev/null
	@tools/interpreters install $(lastword $(AARCH64_INTERPRETERS)) $(MUSL_INTERPRETERS)
	@BUILD=$(BUILD) tools/make_wheel --all
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@tools/run_ctest $(BUILD) -R '^package_wheels$$'

vsix:  ## pack the extension for VS Code, in build/package/dist
	@BUILD=$(BUILD) tools/make_vsix

##@ Check a change

tests-configured: $(if $(PYTHONS),,some-interpreters)
	@tools/setup test
	@cmake -S . -B $(BUILD) -G Ninja "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null

tests-built: tests-configured
	@cmake --build $(BUILD) -j $(JOBS)

some-interpreters:
	@tools/setup build && tools/setup interpreters
	@tools/interpreters install $(INTERPRETERS) || echo "Some interpreters could not be installed; the tests run in those found."

test: tests-configured  ## the tests of each change, in every interpreter found (ten minutes)
	@tools/test_plan $(BUILD) -L '^short$$'
	@BUILD=$(BUILD) tools/python_tools ruff clang-format || echo "The checks that need them are skipped."
	@cmake --build $(BUILD) -j $(JOBS)
	@tools/run_ctest $(BUILD) -L '^short$$'

test-one:  ## one test: TEST=test_stops.SameStopsTest or TEST='Dprintf*' (C++), PYTHON=3.14 (default: the newest)
	@tools/setup test
	@cmake -S . -B $(BUILD) -G Ninja "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target optmonitoring $(if $(filter test_inject%,$(TEST)),optmonitoring_inject, \
	    $(if $(filter test_% %.test.js,$(TEST)),,plain_tests hosted_tests))
	@$(if $(filter %.test.js,$(TEST)),BUILD=$(BUILD) tools/node_packages tests/editors)
	@tools/test_one $(BUILD) '$(TEST)' $(PYTHON)

test-long: tests-configured  ## the other tests that CI runs: tests/split.cmake says which (half an hour)
	@tools/test_plan $(BUILD) -L '^long$$'
	@BUILD=$(BUILD) tools/node_packages tests/editors || echo "The checks that need them are skipped."
	@cmake --build $(BUILD) -j $(JOBS)
	@tools/run_ctest $(BUILD) -L '^long$$'

test-cpp: tests-built  ## all C++ tests
	@tools/run_ctest $(BUILD) -R '^cpp_'

test-python: tests-built  ## all Python tests of the module
	@tools/run_ctest $(BUILD) -R '^py_'

test-brixdebug: tests-built  ## all tests of the debugger and its adapter
	@BUILD=$(BUILD) tools/node_packages tests/editors || echo "The checks that need them are skipped."
	@tools/run_ctest $(BUILD) -R '^(brixdebug|free)_'

types: build  ## check the stubs against the module, in every interpreter, and the debugger's own types
	@tools/setup test
	@cmake -S . -B $(BUILD) -G Ninja "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null
	@tools/run_ctest $(BUILD) -R '^package_types$$'

lint:  ## layout, likely bugs and limits of all files: clang-format, clang-tidy, ruff, shellcheck
	@tools/setup lint
	@BUILD=$(BUILD) tools/python_tools ruff clang-format clang-tidy
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@BUILD=$(BUILD) tools/lint

format:  ## let clang-format and ruff fix what they can
	@tools/setup lint
	@BUILD=$(BUILD) tools/python_tools ruff clang-format
	@BUILD=$(BUILD) tools/lint --fix

hooks:  ## check the files and the message of each commit from now on
	@tools/setup lint
	@BUILD=$(BUILD) tools/python_tools ruff clang-format
	@git config core.hooksPath tools/hooks

##@ Check it thoroughly

test-all:  ## test, test-long and other machines, and insist on the full matrix of interpreters
	@tools/setup test && tools/setup interpreters
	@tools/interpreters install --all
	@tools/interpreters check
	@$(MAKE) --no-print-directory test INTERPRETERS=3.14 PYTHONS=
	@$(MAKE) --no-print-directory test-long INTERPRETERS=3.14 PYTHONS=
	@$(MAKE) --no-print-directory test-aarch64 test-musl wheels PYTHONS=

test-adapter: tests-built  ## scenarios with VS Code's debug client, in every interpreter from 3.12 on
	@BUILD=$(BUILD) tools/node_packages tests/editors || echo "The checks that need them are skipped."
	@tools/run_ctest $(BUILD) -R '^adapter_'

test-reference: bench-debugpy  ## those scenarios with debugpy: where it differs, tests/editors/differences.js says why
	@BUILD=$(BUILD) tools/node_packages tests/editors
	@python="$$(tools/choose_python)" && ADAPTER=debugpy SCENARIO_MILLISECONDS=30000 \
	    BUILD=$(BUILD) $$python tests/editors/run_node.py run_scenarios.js

test-editors: build  ## VS Code in a browser, Emacs and Helix debug a program, Neovim reads its settings; pictures in build/pictures
	@BUILD=$(BUILD) tools/editors
	@python="$$(tools/choose_python)" && BUILD=$(BUILD) OPTMONITORING_DIR=$(BUILD) PYTHONPATH=tests/editors \
	    $$python tests/python/run_tests.py test_editors

test-aarch64:  ## all that depends on the processor, and sessions, in interpreters for aarch64, which QEMU runs
	@tools/setup aarch64 && tools/setup interpreters
	@tools/interpreters install $(AARCH64_INTERPRETERS)
	@cmake --preset aarch64 -B $(BUILD)-aarch64 "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null
	@cmake --build $(BUILD)-aarch64 --target optmonitoring plain_tests hosted_tests -j $(JOBS)
	@tools/run_ctest $(BUILD)-aarch64

test-musl:  ## all that depends on the C library, and sessions, in an interpreter with musl
	@tools/setup musl && tools/setup interpreters
	@tools/interpreters install $(MUSL_INTERPRETERS)
	@cmake --preset musl -B $(BUILD)-musl "-DOPTMONITORING_PYTHONS=$(PYTHONS)" >/dev/null
	@cmake --build $(BUILD)-musl --target optmonitoring -j $(JOBS)
	@tools/run_ctest $(BUILD)-musl

test-machines:  ## of these two what three minutes allow: one interpreter for aarch64, and that with musl where it is built
	@if tools/setup aarch64 && tools/setup interpreters && tools/interpreters install 3.14-aarch64; then \
	    cmake --preset aarch64 -B $(BUILD)-aarch64 -DOPTMONITORING_PYTHONS= >/dev/null && \
	    cmake --build $(BUILD)-aarch64 --target optmonitoring hosted_tests -j $(JOBS) && \
	    tools/run_ctest $(BUILD)-aarch64 -R '^(cpp|session)_3[.]14[.]|^py_3[.]14[.].*[.]test_layout_truth'; \
	else echo "aarch64 is not tested: what that needs cannot be installed here."; fi
	@if [ -n "$$(tools/interpreters list --cmake --machine musl)" ]; then \
	    tools/setup musl && cmake --preset musl -B $(BUILD)-musl -DOPTMONITORING_PYTHONS= >/dev/null && \
	    cmake --build $(BUILD)-musl --target optmonitoring -j $(JOBS) && tools/run_ctest $(BUILD)-musl -R '^(py|session)_'; \
	else echo "musl is not tested: its interpreter is not built here; make test-musl builds it."; fi

test-life: tests-built  ## hostile programs, failing hooks, births and deaths (some minutes an interpreter)
	@tools/run_ctest $(BUILD) -R '^life_'

storm: build  ## eight threads do everything at once, without the interpreter lock, then random programs: STORM_SECONDS each
	@found=; for python in $(STORM_PYTHONS); do found=1; echo "storm: $$python"; \
	    PYTHON_GIL=0 OPTMONITORING_DIR=$(BUILD) $$python tests/python/child_storm.py $(STORM_SECONDS) || exit 1; \
	    PYTHON_GIL=0 OPTMONITORING_DIR=$(BUILD) $$python tests/fuzz/fuzz_grammar.py --threads 8 --seconds $(STORM_SECONDS) || exit 1; \
	    done; \
	    [ -n "$$found" ] || { echo "storm: no free-threaded interpreter was found"; exit 1; }

inject: tests-built  ## every allocation and every interpreter call failing in turn (some minutes an interpreter)
	@tools/run_ctest $(BUILD) -R '^inject_'

cpython-suites: build  ## the interpreters' own test suites under the filter (half an hour or more)
	@python3 tools/cpython_suites --module-dir $(BUILD)

fuzz:  ## fuzz each unit for FUZZ_SECONDS, then run random programs as long
	@tools/setup build && tools/setup fuzz
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@cmake --build $(BUILD) --target fuzzers optmonitoring -j $(JOBS)
	@tests/fuzz/run_fuzz $(BUILD) $(FUZZ_SECONDS)
	@python="$$(tools/choose_python)" && OPTMONITORING_DIR=$(BUILD) $$python tests/fuzz/fuzz_grammar.py \
	    --seconds $(FUZZ_SECONDS)

asan:  ## the C++ tests, the Python suites and the debugger's tests under ASan and UBSan
	@tools/setup test
	@cmake --preset asan -B $(BUILD)-asan \
	       "-DOPTMONITORING_PYTHONS=$(sort $(WATCHED_PYTHONS) $(WATCHED_HOSTS))" >/dev/null
	@cmake --build $(BUILD)-asan --target plain_tests optmonitoring -j $(JOBS)
	@watched="$$(echo $(WATCHED_PYTHONS) any | tr ' ' '|')"; hosts="$$(echo $(WATCHED_HOSTS) | tr ' ' '|')"; \
	    tools/run_ctest $(BUILD)-asan -R "^(cpp_plain\$$|(py|life|fuzz)_($$watched)\.|brixdebug_($$hosts)\.test_($(WATCHED_SESSIONS))\$$)"

tsan:  ## the Python suites with threads under TSan
	@tools/setup test
	@cmake --preset tsan -B $(BUILD)-tsan \
	       "-DOPTMONITORING_PYTHONS=$(sort $(WATCHED_PYTHONS) $(WATCHED_THREADS))" >/dev/null
	@cmake --build $(BUILD)-tsan --target optmonitoring -j $(JOBS)
	@# TSan gives up on the second thread of a free-threaded interpreter's forked child.
	@setarch -R tools/run_ctest $(BUILD)-tsan -R '^py_.*\.test_.*(thread|filter_live|initial_callback|life)' \
	    -E 'freethreaded.test_per_thread_lookup'

tsan-storm:  ## the storms, each for TSAN_SECONDS, in an interpreter that TSan watches too (gets it: ten minutes more)
	@tools/setup build && tools/setup interpreters
	@setarch -R tools/interpreters install 3.13-freethreaded-tsan
	@cmake --preset tsan -B $(BUILD)-tsan >/dev/null
	@cmake --build $(BUILD)-tsan --target optmonitoring -j $(JOBS)
	@setarch -R tests/sanitizers/run_storm $(BUILD)-tsan $(TSAN_SECONDS) \
	    $$(setarch -R tools/interpreters list --cmake --machine tsan | cut -d'|' -f4)

valgrind:  ## the C++ tests and a short Python session under memcheck
	@tools/setup test && tools/setup valgrind
	@cmake -S . -B $(BUILD) -G Ninja >/dev/null
	@cmake --build $(BUILD) --target plain_tests optmonitoring -j $(JOBS)
	@tests/sanitizers/run_valgrind $(BUILD) $$(tools/choose_python)

coverage:  ## which lines of the module the tests reach; tests/coverage_exceptions.txt lists the others
	@tools/setup test
	@BUILD=$(BUILD) tools/python_tools gcovr
	@cmake --preset coverage -B $(BUILD)-coverage "-DOPTMONITORING_PYTHONS=$(or $(PYTHONS),$(shell tools/coverage choose))" >/dev/null
	@cmake --build $(BUILD)-coverage -j $(JOBS)
	@find $(BUILD)-coverage -name '*.gcda' -delete
	@tools/run_ctest $(BUILD)-coverage $(shell tools/coverage tests); tests=$$?; \
	    BUILD=$(BUILD) tools/coverage report $(BUILD)-coverage && exit $$tests

fresh:  ## `make run` and `make test` on fresh Debian 12 and 13, as root (an hour or more)
	@tools/fresh_debian --folder $(BUILD)/fresh

##@ Measure it

bench-quick: build  ## the paths with a budget alone, in release builds
	@tools/setup test
	@python3 bench/run_bench.py --quick --module-dir $(BUILD) --results $(BUILD)/bench/quick

bench: build  ## what an event costs on every path, instructions and times (some minutes an interpreter)
	@tools/setup test
	@python3 bench/run_bench.py --module-dir $(BUILD) --results $(BUILD)/bench \
	    --debugpy "$(or $(BENCH_DEBUGPY),$(BUILD)/debugpy/{version})"
	@$(MAKE) --no-print-directory bench-host bench-adapter

bench-host: build  ## what a program pays under the debugger, beside the standard bdb (2 minutes an interpreter)
	@mkdir -p $(BUILD)/bench
	@tools/interpreters list --cmake --min 3.12 | awk -F'|' '$$3 == "release" { print $$1, $$4 }' | \
	    while read -r name python; do \
	        $$python bench/host_cost.py --module-dir $(BUILD) --packages $(BUILD)/pandas \
	            --json $(BUILD)/bench/host-$$name.json < /dev/null || exit 1; \
	        $$python bench/session_cost.py --module-dir $(BUILD) --json $(BUILD)/bench/session-$$name.json < /dev/null || exit 1; \
	        $$python bench/condition_cost.py --module-dir $(BUILD) --json $(BUILD)/bench/conditions-$$name.json || exit 1; done

bench-adapter: build  ## what somebody pays who debugs in an editor, beside debugpy (3 minutes an interpreter)
	@mkdir -p $(BUILD)/bench
	@tools/interpreters list --cmake --min 3.12 | awk -F'|' '$$3 == "release" { print $$1, $$4 }' | \
	    while read -r name python; do \
	        $$python bench/adapter_cost.py --module-dir $(BUILD) --packages $(BUILD)/pandas \
	            --debugpy "$(or $(BENCH_DEBUGPY),$(BUILD)/debugpy/{version})" \
	            --json $(BUILD)/bench/adapter-$$name.json < /dev/null || exit 1; done

bench-growth: build  ## how an event's cost, and the memory, grow with what the filter keeps
	@python3 bench/growth.py --full --module-dir $(BUILD) --results $(BUILD)/bench

bench-scale: build  ## what an event costs with 1, 2, 4 and 8 threads where the interpreter lock is off
	@python3 bench/scale.py --module-dir $(BUILD)

bench-units:  ## the benchmarks of the hash table and the registry
	@tools/setup build && tools/setup bench
	@cmake -S . -B $(BUILD)-bench -G Ninja -DOPTMONITORING_TESTS=OFF -DOPTMONITORING_BENCH=ON >/dev/null
	@cmake --build $(BUILD)-bench -j $(JOBS)
	@mkdir -p $(BUILD)/bench
	@for unit in dbgtracerhash fileops; do \
	    $(BUILD)-bench/bench/$${unit}_bench --benchmark_out_format=json \
	        --benchmark_out=$(BUILD)/bench/units-$$unit.json || exit 1; done

bench-debugpy:  ## get debugpy, which `make bench` measures where it is found
	@for version in 3.12 3.13 3.14 3.15; do \
	    python3 -m pip install --quiet --upgrade --target $(BUILD)/debugpy/$$version --python-version $$version \
	        --only-binary=:all: debugpy || exit 1; done

bench-pandas:  ## get pandas, whose import is measured where it is found
	@for version in 3.12 3.13 3.14 3.15; do \
	    python3 -m pip install --quiet --upgrade --target $(BUILD)/pandas/$$version --python-version $$version \
	        --only-binary=:all: pandas || echo "no pandas for $$version: its row is skipped"; done

bench-docs:  ## measure everything and renew the tables and plots of docs/performance.md
	@$(MAKE) --no-print-directory bench || echo "A measurement failed; the page is made from the others."
	@$(MAKE) --no-print-directory bench-growth bench-units
	@python3 bench/write_docs.py --results $(BUILD)/bench

##@ Look after the machine

setup:  ## install missing system packages, or say which
	@tools/setup test

interpreters:  ## list the interpreters found
	@tools/interpreters list

clean:  ## remove the build folders
	rm -rf $(BUILD) $(BUILD)-*
