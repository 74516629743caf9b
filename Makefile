# Common commands. `make test` and `make demo` are the two a newcomer needs:
# both install what is missing first.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
# Sanitizer and fuzzing builds: clang, each in a build directory of its own.
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60

.PHONY: deps build test test-sanitize test-asan test-tsan fuzz soak demo bench bench-deps bench-e2e clean

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

# The whole suite again under ASan + UBSan, then under TSan. Reports from
# every process, the server and camera children included, fail the run (see
# tests/sanitizers/run-suite).
test-sanitize: deps
	JOBS=$(JOBS) tests/sanitizers/run-suite address,undefined $(ASAN_BUILD_DIR)
	JOBS=$(JOBS) tests/sanitizers/run-suite thread $(TSAN_BUILD_DIR)

test-asan: deps
	JOBS=$(JOBS) tests/sanitizers/run-suite address,undefined $(ASAN_BUILD_DIR)

test-tsan: deps
	JOBS=$(JOBS) tests/sanitizers/run-suite thread $(TSAN_BUILD_DIR)

# Each libFuzzer target for FUZZ_SECONDS (see tests/fuzz/run).
fuzz: deps
	JOBS=$(JOBS) tests/fuzz/run $(FUZZ_BUILD_DIR) $(FUZZ_SECONDS)

# Streams to several clients for SOAK_SECONDS (default 10 minutes) and checks
# the server's memory and descriptors stay flat (see scripts/soak).
SOAK_SECONDS ?= 600
soak: build
	scripts/soak --build $(BUILD_DIR) --seconds $(SOAK_SECONDS)

demo: build
	scripts/demo $(BUILD_DIR)

# Benchmarks need a photograph for their scene (mate-backgrounds) besides
# what install-deps brings (the GStreamer and ffmpeg baselines).
bench-deps: deps
	@dpkg-query -W -f='$${Status}' mate-backgrounds 2>/dev/null | grep -q "ok installed" || \
		{ apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends mate-backgrounds; }

# Composition of one frame on the photograph, and the faster steps against
# the library calls they replace.
bench: build bench-deps
	$(BUILD_DIR)/bench-compose

# The server against GStreamer and ffmpeg on a replayed real scene, same run
# (needs root: runs in private namespaces; about 20 minutes).
bench-e2e: build bench-deps
	bench/e2e --build $(BUILD_DIR)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(TSAN_BUILD_DIR) $(FUZZ_BUILD_DIR)
