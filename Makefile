# Quelora: top-level commands. `make test` and `make demo` do all their own
# set-up on a fresh Debian 12 machine (scripts/bootstrap installs missing
# packages, then CMake configures and builds).

SHELL := /bin/bash
.DEFAULT_GOAL := build

CMAKE ?= cmake
CTEST ?= ctest
NPROC := $(shell nproc 2>/dev/null || echo 2)

BUILD_DIR := build
ASAN_DIR := build-asan
TSAN_DIR := build-tsan

# libFuzzer targets run by `make sanitize`: build-asan/tests/fuzz/<name>_fuzzer
# over a copy of tests/fuzz/corpus/<name>.
FUZZERS := room_layout websocket_configuration api_sequence
FUZZ_SECONDS ?= 60

ASAN_ENV := ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
TSAN_ENV := TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

# clang 14's sanitizer runtimes cannot map their shadow memory when the kernel
# randomises mmap with more than 28 bits; run sanitized programs (the test
# discovery at build time included) without address randomisation there.
SAN_WRAP := $(shell test "$$(cat /proc/sys/vm/mmap_rnd_bits 2>/dev/null || echo 0)" -gt 28 \
              && echo "setarch $$(uname -m) -R")

.PHONY: build test bench demo control-demo live soak sanitize tsan clean

build:
	scripts/bootstrap
	$(CMAKE) -S . -B $(BUILD_DIR) -DCMAKE_BUILD_TYPE=Release
	$(CMAKE) --build $(BUILD_DIR) -j$(NPROC)

test: build
	$(CTEST) --test-dir $(BUILD_DIR) --output-on-failure -j2 -LE soak

# Speed, measured and reported, never asserted: the Google Benchmark suite of
# the per-block hot paths (out/micro_bench.json), then the conference
# benchmark (R rooms x P talkers on one thread, real-time factors and P_max,
# out/bench.json), then the polyphase resampler's quality beside libsoxr's
# (out/resampler_quality.md). A few minutes; machines are shared, so compare
# ratios taken in one run.
BENCH_MIN_TIME ?= 0.2
bench: build
	mkdir -p out
	$(BUILD_DIR)/tools/bench/quelora_micro_bench --benchmark_min_time=$(BENCH_MIN_TIME) \
	  --benchmark_out=out/micro_bench.json --benchmark_out_format=json
	$(BUILD_DIR)/tools/bench/quelora_conference_bench --out out/bench.json
	$(BUILD_DIR)/tools/bench/quelora_resampler_quality --out out/resampler_quality.md

# The conference simulator on its defaults: four synthesised talkers around
# the shipped round table; one WAV per listener and a summary, under out/.
demo: build
	$(BUILD_DIR)/tools/quelora_conference

# The live room (docs/live_room.md): a conferencing server on this machine that
# browsers join at the address it prints, with the simulator's four talkers as
# bots. LIVE_ARGS adds options, e.g. LIVE_ARGS="--port 9000 --bot talk.wav".
live: build
	$(BUILD_DIR)/tools/live_room/quelora_live_room --demo-bots $(LIVE_ARGS)

# The live room's soak run: 16 bots and 4 browser tabs for 2 minutes, one tab
# killed on the way (not part of make test: it takes its two minutes).
soak: build
	$(CTEST) --test-dir $(BUILD_DIR) -L soak --output-on-failure

# The control-plane demo: seats, moves and directions, no audio.
control-demo: build
	$(BUILD_DIR)/tools/quelora_demo

sanitize:
	scripts/bootstrap sanitize
	CC=clang CXX=clang++ $(CMAKE) -S . -B $(ASAN_DIR) -DQUELORA_SANITIZE=address \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQUELORA_FUZZ=ON
	$(ASAN_ENV) $(SAN_WRAP) $(CMAKE) --build $(ASAN_DIR) -j$(NPROC)
	$(ASAN_ENV) $(SAN_WRAP) $(CTEST) --test-dir $(ASAN_DIR) --output-on-failure -j2
	$(MAKE) tsan
	@set -e; for f in $(FUZZERS); do \
	  corpus=$(ASAN_DIR)/fuzz-corpus/$$f; \
	  mkdir -p $$corpus $(ASAN_DIR)/fuzz-artifacts; \
	  cp -R tests/fuzz/corpus/$$f/. $$corpus/; \
	  echo "== fuzzing $$f for $(FUZZ_SECONDS) s"; \
	  $(ASAN_ENV) $(SAN_WRAP) $(ASAN_DIR)/tests/fuzz/$${f}_fuzzer \
	    -max_total_time=$(FUZZ_SECONDS) -artifact_prefix=$(ASAN_DIR)/fuzz-artifacts/$$f- \
	    $$corpus; \
	done

tsan:
	scripts/bootstrap sanitize
	CC=clang CXX=clang++ $(CMAKE) -S . -B $(TSAN_DIR) -DQUELORA_SANITIZE=thread \
	  -DCMAKE_BUILD_TYPE=RelWithDebInfo
	$(TSAN_ENV) $(SAN_WRAP) $(CMAKE) --build $(TSAN_DIR) -j$(NPROC)
	$(TSAN_ENV) $(SAN_WRAP) $(CTEST) --test-dir $(TSAN_DIR) -L 'stress|websocket' --no-tests=error \
	  --output-on-failure

clean:
	rm -rf $(BUILD_DIR) $(ASAN_DIR) $(TSAN_DIR)
