# Entry points for newcomers and CI. Every target that builds installs missing
# Debian packages first (idempotent) and builds out of tree.
BUILD      ?= build
GENERATOR  ?= Ninja
JOBS       ?= 2

.PHONY: all deps build test demo test-sanitize memcheck coverage clean format

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD) -G $(GENERATOR) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

# A narrated session against a simulated four-node cluster on loopback (three
# nodes answering, one silent): only the three tools are built, then
# scripts/demo.sh runs tovctl's commands, a failover from the silent entry
# node, a named cluster, a refused password, a stalled daemon ended by the
# deadline and the exporter's /metrics and /probe. Discovery is aimed at
# 127.0.0.1, never broadcast; the demo stops at once when UDP port 1195 is
# taken, while a taken TCP port 1195 is replaced by one the kernel picks.
demo: deps
	cmake -S . -B $(BUILD) -G $(GENERATOR) $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS) --target tovctl tovsim tovexporter
	scripts/demo.sh $(BUILD)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS) --timeout 300

# The whole suite built with clang, AddressSanitizer and UBSan. Only the two
# blocks the client abandons on purpose are suppressed, each by name.
SAN_BUILD ?= build-sanitize
test-sanitize: deps
	CXX=clang++ cmake -S . -B $(SAN_BUILD) -G $(GENERATOR) \
	  -DCMAKE_BUILD_TYPE=Debug -DTOVAPI_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(SAN_BUILD) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1 \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
	UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(SAN_BUILD) --output-on-failure -j $(JOBS) --timeout 300

# The integration suite under valgrind, with the same two suppressions.
MEMCHECK = valgrind --quiet --error-exitcode=1 --leak-check=full \
  --errors-for-leak-kinds=definite --suppressions=$(CURDIR)/tests/valgrind.supp
memcheck: build
	$(MEMCHECK) $(BUILD)/tests/integration/integration_test

# Line and function coverage of the library by the whole suite (gcovr).
COV_BUILD ?= build-coverage
coverage: deps
	cmake -S . -B $(COV_BUILD) -G $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug \
	  -DTOVAPI_COVERAGE=ON $(CMAKE_ARGS)
	cmake --build $(COV_BUILD) -j $(JOBS)
	find $(COV_BUILD) -name '*.gcda' -delete
	ctest --test-dir $(COV_BUILD) -j $(JOBS) --timeout 300 --output-on-failure
	gcovr -r . --object-directory $(COV_BUILD) --filter 'tovapi/' \
	  --exclude-unreachable-branches --print-summary \
	  --txt $(COV_BUILD)/coverage.txt --html-details $(COV_BUILD)/coverage.html
	@cat $(COV_BUILD)/coverage.txt

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD)

# Benchmarks, in an optimised build directory of their own; never part of
# `make test`. BENCH_ARGS is passed on, e.g. BENCH_ARGS=--quick for a smoke
# run or BENCH_ARGS=--benchmark_filter=reply; the namespace benchmark
# (snapshot_large, about three minutes, skipped without root) only heeds
# --quick.
BENCH_BUILD ?= build-bench
.PHONY: bench
bench: deps
	cmake -S . -B $(BENCH_BUILD) -G $(GENERATOR) -DCMAKE_BUILD_TYPE=Release \
	  -DTOVAPI_BENCH=ON $(CMAKE_ARGS)
	cmake --build $(BENCH_BUILD) -j $(JOBS) --target tovapi_bench \
	  discovery_burst snapshot_large
	$(BENCH_BUILD)/bench/discovery_burst
	$(BENCH_BUILD)/bench/tovapi_bench $(BENCH_ARGS)
	$(BENCH_BUILD)/bench/snapshot_large $(filter --quick,$(BENCH_ARGS))

# libFuzzer (clang, ASan + UBSan) in a build directory of its own; never part
# of `make test`. `fuzz` runs each target FUZZ_SECONDS on a scratch copy of
# its corpus (fuzz/corpus-work/) and keeps crashing inputs under
# fuzz/artifacts/<target>/; `fuzz-replay` runs each target once over its
# committed corpus. FUZZ_ARGS is passed on to every target.
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS := fuzz_sim_frame fuzz_info_reply fuzz_reply_decoder fuzz_discovery \
                fuzz_clusters fuzz_discovery_diff
FUZZ_ENV      = ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
FUZZ_CONFIGURE = CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -G $(GENERATOR) \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTOVAPI_SANITIZE=ON -DTOVAPI_FUZZ=ON \
  -DTOVAPI_TESTS=OFF $(CMAKE_ARGS) && \
  cmake --build $(FUZZ_BUILD) -j $(JOBS) --target fuzzers
.PHONY: fuzz fuzz-replay
fuzz: deps
	$(FUZZ_CONFIGURE)
	@status=0; for t in $(FUZZ_TARGETS); do \
	  rm -rf fuzz/corpus-work/$$t && mkdir -p fuzz/corpus-work/$$t fuzz/artifacts/$$t && \
	  cp fuzz/corpus/$$t/* fuzz/corpus-work/$$t/ && \
	  echo "== $$t: $(FUZZ_SECONDS) s" && \
	  $(FUZZ_ENV) $(FUZZ_BUILD)/fuzz/$$t -max_total_time=$(FUZZ_SECONDS) \
	    -timeout=10 -print_final_stats=1 -artifact_prefix=fuzz/artifacts/$$t/ \
	    $(FUZZ_ARGS) fuzz/corpus-work/$$t || status=1; \
	done; exit $$status
fuzz-replay: deps
	$(FUZZ_CONFIGURE)
	@status=0; for t in $(FUZZ_TARGETS); do \
	  echo "== $$t: replaying fuzz/corpus/$$t" && \
	  $(FUZZ_ENV) $(FUZZ_BUILD)/fuzz/$$t -runs=0 -timeout=10 \
	    -artifact_prefix=$(FUZZ_BUILD)/ $(FUZZ_ARGS) fuzz/corpus/$$t || status=1; \
	done; exit $$status
