# The two commands of the README: `make demo` and `make test`.
BUILD ?= build
JOBS ?= $(shell nproc 2>/dev/null || echo 2)

.PHONY: all build build-asan demo test test-normal test-asan clean package

all: build

# Plain builds install nothing: `./scripts/setup.sh build` installs what they need.
build:
	cmake -S . -B $(BUILD)/normal -DCMAKE_BUILD_TYPE=RelWithDebInfo
	MAKEFLAGS= cmake --build $(BUILD)/normal -j $(JOBS)

build-asan:
	cmake -S . -B $(BUILD)/asan -DCMAKE_BUILD_TYPE=Debug -DKELVO_SANITIZE=ON
	MAKEFLAGS= cmake --build $(BUILD)/asan -j $(JOBS)

# The programs the demo runs; it builds only these, quietly (the log of the
# build is shown only when it fails), in a folder of its own: no debug
# information and the libraries built as one unit each, to be quick.
DEMO_TARGETS = kelvo kelvo-report
demo:
	@./scripts/setup.sh demo
	@mkdir -p $(BUILD)
	@echo "Building $(DEMO_TARGETS) in $(BUILD)/demo (log: $(BUILD)/demo-build.log) ..."
	@{ cmake -S . -B $(BUILD)/demo -DCMAKE_BUILD_TYPE=Release -DCMAKE_UNITY_BUILD=ON \
	         -DKELVO_TESTS=OFF -DKELVO_STORAGE_LIBRARY= -DKELVO_STORAGE_INCLUDE_DIR= && \
	   cmake --build $(BUILD)/demo -j $(JOBS) --target $(DEMO_TARGETS) -- --no-print-directory; \
	 } >$(BUILD)/demo-build.log 2>&1 || { cat $(BUILD)/demo-build.log; exit 1; }
	@./demo/run_demo.sh $(BUILD)/demo

test-normal: build
	ctest --test-dir $(BUILD)/normal --output-on-failure -j $(JOBS)

test-asan: build-asan
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest --test-dir $(BUILD)/asan --output-on-failure -j $(JOBS)

# The two builds and their tests run side by side (the package tests leave
# cores idle); each one's output is shown whole when it ends.
test:
	@./scripts/setup.sh test
	@$(MAKE) --no-print-directory -j2 --output-sync=recurse test-normal test-asan

clean:
	rm -rf $(BUILD)

# The Debian packages, built by dpkg-buildpackage in a clean copy of the
# sources, land in $(BUILD).
package:
	@./scripts/setup.sh package
	JOBS=$(JOBS) ./scripts/package.sh . $(BUILD)

# Scale benchmark: wall time and peak memory of the commands at three sizes.
.PHONY: bench fuzz
bench:
	@./scripts/setup.sh demo
	cmake -S . -B $(BUILD)/bench -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELVO_TESTS=OFF
	cmake --build $(BUILD)/bench -j $(JOBS) --target kelvo kelvo-report gen_server measure
	./bench/run_bench.sh $(BUILD)/bench

# The randomised hostile-data test on the sanitizer build, for FUZZ_SECONDS,
# from the seed FUZZ_SEED on (the clock by default; a finding prints the seed
# to replay it with).
FUZZ_SECONDS ?= 600
FUZZ_SEED ?= $(shell date +%s)
fuzz:
	@./scripts/setup.sh test
	@$(MAKE) --no-print-directory build-asan
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		KELVO_FUZZ_SECONDS=$(FUZZ_SECONDS) KELVO_FUZZ_SEED=$(FUZZ_SEED) KELVO=$(abspath $(BUILD))/asan/kelvo \
		KELVO_REPORT=$(abspath $(BUILD))/asan/kelvo-report KELVO_SCHEMA=$(CURDIR)/src/storage_sim/schema.sql \
		/usr/bin/python3 tests/fuzz_test.py
