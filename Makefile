# Common commands. `make test` and `make demo` are the two a newcomer needs:
# both install what is missing first.
BUILD_DIR ?= build
JOBS ?= $(shell nproc)

.PHONY: deps build test demo bench clean

deps:
	@scripts/install-deps

build: deps
	cmake -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600

demo: build
	scripts/demo $(BUILD_DIR)

bench: build
	$(BUILD_DIR)/bench-compose

clean:
	rm -rf $(BUILD_DIR)
