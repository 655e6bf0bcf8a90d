# The two entry points: `make run` and `make test`. Both install what is missing first.
BUILD      ?= build
PYTHON     ?= /usr/bin/python3
GENERATOR  ?= Ninja
CMAKE_ARGS ?=
JOBS       ?= $(shell nproc)

.PHONY: all deps configure build run test test-cpp test-python bench coverage fuzz format clean

all: build

deps:
	@bash tools/install-deps.sh

configure: deps
	@[ -f $(BUILD)/CMakeCache.txt ] || cmake -S . -B $(BUILD) -G "$(GENERATOR)" \
	  -DPython3_EXECUTABLE=$(PYTHON) $(CMAKE_ARGS)

build: configure
	cmake --build $(BUILD) -j $(JOBS)

# The root broker of a tree, on this machine only; Ctrl-C stops it in order.
run: build
	$(BUILD)/bin/velmo --ip 127.0.0.1 --port 9559

test: build
	$(MAKE) --no-print-directory test-cpp test-python

# CTest also lists the pytest suite; it runs below on its own so that its counts show.
test-cpp:
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) -E '^python\.pytest$$'

test-python:
	PYTHONPATH=$(CURDIR)/$(BUILD)/python $(PYTHON) -m pytest -p no:cacheprovider python/tests

bench: build
	@for b in $(BUILD)/bin/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done

# Line and branch coverage of the code (tests and benchmarks left out) by every test,
# per subsystem, from an instrumented Debug build of its own.
COVERAGE_BUILD ?= build-coverage
coverage:
	$(MAKE) --no-print-directory build BUILD=$(COVERAGE_BUILD) \
	  CMAKE_ARGS="-DCMAKE_BUILD_TYPE=Debug -DVELMO_COVERAGE=ON -DVELMO_BUILD_BENCH=OFF"
	find $(COVERAGE_BUILD) -name '*.gcda' -delete
	$(MAKE) --no-print-directory test-cpp test-python BUILD=$(COVERAGE_BUILD)
	$(PYTHON) tools/coverage-summary.py $(COVERAGE_BUILD)

# Every fuzzing target for FUZZ_SECONDS each, in a clang build of its own (libFuzzer with
# AddressSanitizer and UndefinedBehaviorSanitizer); the corpora grow in $(FUZZ_BUILD).
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 300
fuzz: deps
	@[ -f $(FUZZ_BUILD)/CMakeCache.txt ] || CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) \
	  -G "$(GENERATOR)" -DVELMO_FUZZ=ON -DVELMO_SANITIZE=address,undefined \
	  -DVELMO_BUILD_TESTS=OFF -DVELMO_BUILD_PYTHON=OFF -DVELMO_BUILD_BENCH=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers
	bash tools/run-fuzzers.sh $(FUZZ_BUILD) $(FUZZ_SECONDS)

format:
	git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD)
