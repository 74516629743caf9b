# Common commands. `make test` and `make demo` are the two a newcomer needs:
# both install what is missing first.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)
# Sanitizer and fuzzing builds: clang, each in a build directory of its own.
ASAN_BUILD_DIR ?= build-asan
TSAN_BUILD_DIR ?= build-tsan
FUZZ_BUILD_DIR ?= build-fuzz
FUZZ_SECONDS ?= 60

# Installation (see deploy/): PREFIX and DESTDIR as usual.
PREFIX ?= /usr/local
DESTDIR ?=
# The arm64 cross build and the root file system it builds against, kept
# outside the build directory: making it takes a few minutes.
ARM64_BUILD_DIR ?= build-arm64
ARM64_ROOT ?= $(HOME)/.cache/video-server/arm64-root
# The whole suite runs against the arm64 build under qemu-aarch64, with this
# machine's test camera and clients. The stopped-viewer case stays x86-only:
# it needs the server's full frame rate, which emulation cuts to a few fps.

.PHONY: deps build test format-check test-sanitize test-asan test-tsan fuzz soak demo bench bench-deps bench-e2e bench-arm64 clean \
	install cross-arm64 test-arm64 deb-deps deb deb-arm64 test-deb test-deb-arm64 test-board

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

# Every C and C++ file as .clang-format lays it out.
format-check: deps
	git ls-files '*.c' '*.cpp' '*.h' | xargs clang-format --dry-run -Werror

# The whole suite again under ASan + UBSan, then under TSan: clang, a build
# directory each. Reports from every process, the server and camera children
# included, fail the run (see tests/CMakeLists.txt).
sanitized = CC=clang CXX=clang++ cmake -S . -B $(1) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVS_SANITIZE=$(2) && \
	cmake --build $(1) -j $(JOBS) && cd $(1) && ctest --output-on-failure -j $(JOBS) --timeout 600
comma := ,

test-sanitize: test-asan test-tsan

test-asan: deps
	$(call sanitized,$(ASAN_BUILD_DIR),address$(comma)undefined)

test-tsan: deps
	$(call sanitized,$(TSAN_BUILD_DIR),thread)

# Each libFuzzer target for FUZZ_SECONDS (see tests/fuzz/CMakeLists.txt).
fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DVS_FUZZ=ON \
		-DBUILD_TESTING=OFF -DCMAKE_DISABLE_FIND_PACKAGE_benchmark=TRUE -DFUZZ_SECONDS=$(FUZZ_SECONDS)
	cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target fuzz-run

# Streams to five viewers for SOAK_SECONDS (default 10 minutes) and checks
# that the server's memory and descriptors stay flat (tests/e2e/e2e.py).
SOAK_SECONDS ?= 600
soak: build
	scripts/isolate --net -- tests/e2e/e2e.py $(BUILD_DIR) soak $(SOAK_SECONDS)

demo: build
	scripts/demo $(BUILD_DIR)

# Benchmarks need a photograph for their scene (mate-backgrounds) besides
# what install-deps brings (the GStreamer and ffmpeg baselines).
bench-deps: deps
	@scripts/install-deps bench

# Composition of one frame on the photograph, and the faster steps against
# the library calls they replace.
bench: build bench-deps
	$(BUILD_DIR)/bench-compose

# The server against GStreamer and ffmpeg on a replayed real scene, same run
# (needs root: runs in private namespaces; about 20 minutes).
bench-e2e: build bench-deps
	bench/e2e --build $(BUILD_DIR)

# Instructions per frame on arm64 under qemu-aarch64: the server, a bare
# capture loop, GStreamer (from a root of its own, kept here) and the
# composition's steps alone (needs root: runs in private namespaces).
ARM64_GST_ROOT ?= $(HOME)/.cache/video-server/arm64-gst-root

bench-arm64: build cross-arm64 bench-deps
	ARM64_ROOT=$(ARM64_ROOT) ARM64_GST_ROOT=$(ARM64_GST_ROOT) \
		bench/arm64/run --build $(BUILD_DIR) --arm64-build $(ARM64_BUILD_DIR)

# The server, its systemd units, health check and log rotation rule,
# stripped for the device.
install: build
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD_DIR) --prefix $(PREFIX) --strip

cross-arm64:
	@scripts/install-deps arm64
	deploy/arm64-root $(ARM64_ROOT)
	cmake -S . -B $(ARM64_BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
		-DCMAKE_TOOLCHAIN_FILE=$(CURDIR)/deploy/aarch64.cmake -DVS_ARM64_ROOT=$(ARM64_ROOT) -DVS_TEST_CAMERA=OFF \
		-DVS_HOST_TEST_CAMERA=$(CURDIR)/$(BUILD_DIR)/test-camera
	cmake --build $(ARM64_BUILD_DIR) -j $(JOBS)

test-arm64: build cross-arm64
	cd $(ARM64_BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 900

# Debian packages of the trees built above (debian/: debhelper through
# dpkg-buildpackage), each written into its build directory and checked with
# lintian. The version is debian/changelog's.
VERSION = $(shell dpkg-parsechangelog -S Version)
package = $(4) VS_DEB_DIR=$(1) dpkg-buildpackage -b -us -uc $(2) --buildinfo-option=-u$(1) --changes-option=-u$(1) \
		--buildinfo-file=$(1)/video-server_$(VERSION)_$(3).buildinfo \
		--changes-file=$(1)/video-server_$(VERSION)_$(3).changes && \
	lintian --fail-on error,warning $(1)/video-server_$(VERSION)_$(3).deb

deb-deps:
	@scripts/install-deps deb

deb: build deb-deps
	$(call package,$(CURDIR)/$(BUILD_DIR),,amd64,VS_BUILD_DIR=$(BUILD_DIR))

deb-arm64: cross-arm64 deb-deps
	$(call package,$(CURDIR)/$(ARM64_BUILD_DIR),-aarm64 -d -Pcross$(comma)nocheck,arm64,\
		VS_BUILD_DIR=$(ARM64_BUILD_DIR) VS_ARM64_ROOT=$(ARM64_ROOT) \
		DEB_BUILD_OPTIONS=nocheck CC=aarch64-linux-gnu-gcc)

# Each package's files and Depends. The arm64 one is installed, upgraded and
# purged on the board (test-board).
test-deb: deb
	tests/package/test-deb $(BUILD_DIR)/video-server_$(VERSION)_amd64.deb

test-deb-arm64: deb-arm64
	tests/package/test-deb $(ARM64_BUILD_DIR)/video-server_$(VERSION)_arm64.deb

# The emulated arm64 board (qemu-system-aarch64, Debian bookworm with systemd)
# the arm64 package is installed on, its disk image made once and kept here
# (up to about 25 minutes the first time), and checked against the test camera.
BOARD_IMAGE ?= $(HOME)/.cache/video-server/board-image

test-board: deb-arm64 build
	@scripts/install-deps board
	tests/board/image $(ARM64_BUILD_DIR)/video-server_$(VERSION)_arm64.deb $(BOARD_IMAGE)
	tests/board/run $(ARM64_BUILD_DIR)/video-server_$(VERSION)_arm64.deb $(BUILD_DIR)/test-camera $(BOARD_IMAGE)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(TSAN_BUILD_DIR) $(FUZZ_BUILD_DIR) $(ARM64_BUILD_DIR)
