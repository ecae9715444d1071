# Two commands for a newcomer:
#   make run    set up, build, start the kernel on the terminal
#   make test   set up, build, run every test
BUILD ?= build
ASAN_BUILD ?= build-asan
JOBS ?= $(shell nproc)


.PHONY: run test check-suite build setup asan bench bench-peers peers fuzz fuzz-build fuzz-smoke clean

setup:
	@tools/setup.sh

$(BUILD)/build.ninja: | setup
	@cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null

build: setup $(BUILD)/build.ninja
	@cmake --build $(BUILD) -j $(JOBS)

run: build
	@$(BUILD)/torva/bin/torvkern

test: build fuzz-smoke check-suite
	@cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

# The whole suite once more with the kernel's self-checks on (TORVA_CHECK: canonical
# results and declared argument counts asserted), optimised, without benchmarks.
CHECK_BUILD ?= build-check
check-suite: setup
	@cmake -S . -B $(CHECK_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTORVA_CHECK=ON -DTORVA_BENCH=OFF >/dev/null
	@cmake --build $(CHECK_BUILD) -j $(JOBS) >/dev/null
	@cd $(CHECK_BUILD) && (ctest -j $(JOBS) --output-on-failure >ctest.log 2>&1 || (cat ctest.log; exit 1))
	@echo "check build: $$(grep 'tests passed' $(CHECK_BUILD)/ctest.log)"

# The same tests under AddressSanitizer and UndefinedBehaviorSanitizer; TORVA_SANITIZE
# also turns on the kernel's self-checks (TORVA_CHECK).
asan: setup
	@cmake -S . -B $(ASAN_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DTORVA_SANITIZE=ON -DTORVA_BENCH=OFF >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=0 ctest --output-on-failure -j $(JOBS)

# The parser under libFuzzer (clang, ASan, UBSan): a short run as part of the tests,
# a long one on demand (FUZZ_SECONDS=3600 make fuzz).
FUZZ_BUILD ?= build-fuzz
FUZZ_SECONDS ?= 600
$(FUZZ_BUILD)/build.ninja: | setup
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DTORVA_FUZZ=ON -DTORVA_TESTS=OFF -DTORVA_BENCH=OFF >/dev/null

fuzz-build: $(FUZZ_BUILD)/build.ninja
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) --target parser_fuzz

fuzz-smoke: fuzz-build
	@mkdir -p $(FUZZ_BUILD)/corpus
	@$(FUZZ_BUILD)/parser_fuzz -max_total_time=20 -max_len=4096 -print_final_stats=0 \
	  $(FUZZ_BUILD)/corpus tests/fuzz/corpus 2>$(FUZZ_BUILD)/fuzz.log \
	  || (tail -60 $(FUZZ_BUILD)/fuzz.log; exit 1)
	@echo "parser fuzz: $$(grep -c '' $(FUZZ_BUILD)/fuzz.log) log lines, no findings"

fuzz: fuzz-build
	@mkdir -p $(FUZZ_BUILD)/corpus
	@$(FUZZ_BUILD)/parser_fuzz -max_total_time=$(FUZZ_SECONDS) $(FUZZ_BUILD)/corpus tests/fuzz/corpus

bench: build
	@for b in bench_heap bench_kernel bench_proc bench_containers; do $(BUILD)/bench/$$b; done

# The peer systems the comparison runs beside Torva (installed only on request).
peers:
	@tools/setup.sh --peers

# Torva beside the peers that are installed: a table of median times and ratios.
bench-peers: build
	@python3 bench/peers/run.py --runs $${RUNS:-5}

clean:
	@rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) $(CHECK_BUILD)
