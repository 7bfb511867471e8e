# Two commands are all a fresh machine needs:
#   make run   builds and starts the server with a simulated PLC
#   make test  installs missing packages, builds and runs every test
BUILD ?= build
ASAN_BUILD ?= build-asan
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
SOAK_CLIENTS ?= 200
SOAK_SECONDS ?= 600
JOBS ?= $(shell nproc)

.PHONY: all deps build run test asan-test bench fuzz soak clean

all: build

deps:
	@scripts/deps

build: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/bin/comhost examples/demo.toml

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

asan-test: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCOMSERVER_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

bench: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOMSERVER_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)
	@for b in $(BUILD)/bin/bench_*; do $$b; done

# libFuzzer targets (clang, ASan + UBSan), each run for FUZZ_SECONDS.
fuzz: deps
	@cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOMSERVER_FUZZ=ON \
	  -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzz_targets
	scripts/fuzz $(FUZZ_BUILD) $(FUZZ_SECONDS)

# Soak run, not part of make test: SOAK_CLIENTS clients for SOAK_SECONDS
# against comhost + comserver with simulated ports (docs/benchmarks.md).
soak: deps
	@cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCOMSERVER_BENCH=ON >/dev/null
	@cmake --build $(BUILD) -j $(JOBS) --target soak
	$(BUILD)/bin/soak --clients $(SOAK_CLIENTS) --seconds $(SOAK_SECONDS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD)
