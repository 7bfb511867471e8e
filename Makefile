# Two commands are all a fresh machine needs:
#   make run   builds and starts the server with a simulated PLC
#   make test  installs missing packages, builds and runs every test
BUILD ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
ARMHF_BUILD ?= build-armhf
RELEASE_BUILD ?= build-release
# Emulated tests mostly wait on each other's processes: run more than one per core.
ARMHF_TEST_JOBS ?= 4
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 60
SOAK_CLIENTS ?= 200
SOAK_SECONDS ?= 600
JOBS ?= $(shell nproc)

.PHONY: all deps build run test release-build asan-test tsan-test armhf-test bench fuzz soak test-share clean

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

# Release flags let the optimiser see more; warnings stay errors there too.
release-build: deps
	@cmake -S . -B $(RELEASE_BUILD) -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build $(RELEASE_BUILD) -j $(JOBS)

# Test lines against code lines; fails above the limit.
test-share:
	@scripts/test-share --check

asan-test: deps
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCOMSERVER_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# Every process of the suite (tests, comhost, comserver, plug-ins) writes its
# race reports into one directory; any report fails the pass, also one from a
# server whose test passed.
tsan-test: deps
	@cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCOMSERVER_TSAN=ON >/dev/null
	@cmake --build $(TSAN_BUILD) -j $(JOBS)
	@rm -rf $(TSAN_BUILD)/tsan-reports && mkdir -p $(TSAN_BUILD)/tsan-reports
	TSAN_OPTIONS="log_path=$(abspath $(TSAN_BUILD))/tsan-reports/report second_deadlock_stack=1" \
	  ctest --test-dir $(TSAN_BUILD) --output-on-failure -j $(JOBS)
	@if [ -n "$$(ls -A $(TSAN_BUILD)/tsan-reports)" ]; then \
	  cat $(TSAN_BUILD)/tsan-reports/*; echo "tsan-test: ThreadSanitizer reports above"; exit 1; fi

# Cross-builds for the device and runs the whole suite under qemu-arm.
armhf-test: deps
	@scripts/armhf-deps $(ARMHF_BUILD)/sysroot
	@scripts/armhf-emulation $(ARMHF_BUILD)/sysroot
	@cmake -S . -B $(ARMHF_BUILD) -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake \
	  -DCOMSERVER_ARMHF_SYSROOT=$(abspath $(ARMHF_BUILD))/sysroot -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
	@cmake --build $(ARMHF_BUILD) -j $(JOBS)
	@ctest --test-dir $(ARMHF_BUILD) -R '^PluginRecords\.' --verbose | grep -E '^[0-9]+: (plug-in|  [a-zA-Z])'
	ctest --test-dir $(ARMHF_BUILD) --output-on-failure -j $(ARMHF_TEST_JOBS) --timeout 300

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
	rm -rf $(BUILD) $(RELEASE_BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(ARMHF_BUILD) $(FUZZ_BUILD)
