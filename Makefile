# Set-up and everyday jobs.  Every target installs the Debian packages it needs
# first (see .ci/install-deps), then configures and builds with CMake.
#   make demo   build the library and the nodara program, run the demo job
#   make test   build and run every test, then again under ASan + UBSan
#   make bench  build the benchmark programs and run them
#   make fuzz   build the fuzz targets with clang and run each for a while

JOBS      ?= 2
BUILD     ?= build
CMAKE     ?= cmake
CTEST     ?= ctest
FUZZ_TIME ?= 60

RELEASE_DIR  := $(BUILD)/release
TEST_DIR     := $(BUILD)/test
ASAN_DIR     := $(BUILD)/asan
BENCH_DIR    := $(BUILD)/bench
FUZZ_DIR     := $(BUILD)/fuzz

.PHONY: all deps demo test test-main test-asan bench fuzz install clean

all: demo

deps:
	@bash .ci/install-deps

demo: deps
	$(CMAKE) -S . -B $(RELEASE_DIR) -DCMAKE_BUILD_TYPE=Release -DNODARA_BUILD_TESTS=OFF
	$(CMAKE) --build $(RELEASE_DIR) -j$(JOBS)
	cd $(RELEASE_DIR) && ./tools/nodara demo

test: deps test-main test-asan

test-main:
	$(CMAKE) -S . -B $(TEST_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNODARA_BUILD_TESTS=ON \
	  -DNODARA_FAULT_INJECTION=ON -DNODARA_WERROR=$(if $(CI),ON,OFF)
	$(CMAKE) --build $(TEST_DIR) -j$(JOBS)
	cd $(TEST_DIR) && $(CTEST) --output-on-failure -j$(JOBS)

test-asan:
	$(CMAKE) -S . -B $(ASAN_DIR) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" \
	  -DNODARA_BUILD_TESTS=ON -DNODARA_FAULT_INJECTION=ON -DNODARA_SANITIZE=ON \
	  -DNODARA_WERROR=$(if $(CI),ON,OFF)
	$(CMAKE) --build $(ASAN_DIR) -j$(JOBS)
	cd $(ASAN_DIR) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  $(CTEST) --output-on-failure -j$(JOBS) -LE "interop|install"

bench: deps
	$(CMAKE) -S . -B $(BENCH_DIR) -DCMAKE_BUILD_TYPE=Release -DNODARA_BUILD_TESTS=OFF -DNODARA_BUILD_BENCHMARKS=ON
	$(CMAKE) --build $(BENCH_DIR) -j$(JOBS)
	@for b in $(BENCH_DIR)/bench/nodara_bench_*; do echo "== $$b"; $$b || exit 1; done

fuzz: deps
	CXX=clang++ $(CMAKE) -S . -B $(FUZZ_DIR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DNODARA_BUILD_TESTS=OFF \
	  -DNODARA_BUILD_TOOLS=OFF -DNODARA_BUILD_FUZZERS=ON
	$(CMAKE) --build $(FUZZ_DIR) -j$(JOBS)
	@for f in $(FUZZ_DIR)/fuzz/fuzz_*; do n=$$(basename $$f); echo "== $$f"; \
	  mkdir -p $(FUZZ_DIR)/corpus/$$n; \
	  seeds=fuzz/corpus/$${n#fuzz_}; [ -d $$seeds ] || seeds=; \
	  $$f -max_total_time=$(FUZZ_TIME) $(FUZZ_DIR)/corpus/$$n $$seeds || exit 1; done

install: demo
	$(CMAKE) --install $(RELEASE_DIR)

clean:
	rm -rf $(BUILD)
