# Two commands for a newcomer:
#   make run    set up, build, start the kernel on the terminal
#   make test   set up, build, run every test
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)

.PHONY: run test build setup asan bench bench-peers peers clean

setup:
	@tools/setup.sh

$(BUILD)/build.ninja: | setup
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: setup $(BUILD)/build.ninja
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@$(BUILD)/torva/bin/torvkern

test: build
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The same tests under AddressSanitizer and UndefinedBehaviorSanitizer.
asan: setup
	@cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTORVA_SANITIZE=ON -DTORVA_BENCH=OFF >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure -j $(JOBS)

bench: build
	@$(BUILD)/bench/bench_heap

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD)
