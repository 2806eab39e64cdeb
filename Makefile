# Thin driver over CMake. Quick start: `make demo` and `make test`.
#
#   make demo      build and run the example host
#   make test      build and run every test (what CI runs)
#   make bench     build and run the benchmarks against their peers
#   make asan      the tests under AddressSanitizer and UBSan
#   make tsan      the tests under ThreadSanitizer
#   make install PREFIX=/some/where
#   make format    clang-format every source file
#   make soak      the tag database's randomised and crash tests, 20 times longer
#   make fuzz      every fuzz target, FUZZ_SECONDS (60) each
#
# Missing Debian packages are installed with apt-get on first use.

JOBS   ?= $(shell nproc)
PREFIX ?= /usr/local
CMAKE  ?= cmake
SUDO   := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

BASE_PKGS  := cmake g++ make pkg-config libgtest-dev libgmock-dev
BENCH_PKGS := python3 libbenchmark-dev libjemalloc-dev libmimalloc-dev libgoogle-perftools-dev \
              liblmdb-dev libsqlite3-dev libleveldb-dev libfmt-dev
FUZZ_PKGS  := clang libclang-rt-14-dev
SAN_TEST_EXCLUDE := -LE no-sanitizer

# $(call ensure,packages): apt-get install whatever of them is missing.
define ensure
	@missing=""; for p in $(1); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -qq && \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq $$missing; \
	fi
endef

# $(call build,dir,extra cmake args)
define build
	$(CMAKE) -S . -B $(1) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(2)
	$(CMAKE) --build $(1) -j $(JOBS)
endef

.PHONY: all deps bench-deps demo test bench asan tsan install format clean

all: test

deps:
	$(call ensure,$(BASE_PKGS))

bench-deps: deps
	$(call ensure,$(BENCH_PKGS))

DEV_ARGS := -DQKUTIL_BUILD_TESTS=ON -DQKUTIL_BUILD_EXAMPLES=ON

demo: deps
	$(call build,build,$(DEV_ARGS))
	./build/examples/qkdemo

test: deps
	$(call build,build,$(DEV_ARGS))
	cd build && ctest --output-on-failure -j $(JOBS)

bench: bench-deps
	$(call build,build-bench,-DCMAKE_BUILD_TYPE=Release -DQKUTIL_BUILD_BENCH=ON -DQKUTIL_BUILD_TESTS=OFF)
	$(CMAKE) --build build-bench --target run-benchmarks

asan: deps
	$(call build,build-asan,$(DEV_ARGS) -DQKUTIL_SANITIZE=address)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=0 \
	  ctest --output-on-failure -j $(JOBS) $(SAN_TEST_EXCLUDE)

tsan: deps
	$(call build,build-tsan,$(DEV_ARGS) -DQKUTIL_SANITIZE=thread)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  setarch $$(uname -m) -R ctest --output-on-failure -j $(JOBS) $(SAN_TEST_EXCLUDE)

install: deps
	$(call build,build-install,-DQKUTIL_BUILD_TESTS=OFF -DQKUTIL_BUILD_EXAMPLES=OFF)
	$(CMAKE) --install build-install --prefix $(PREFIX)

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-bench build-asan build-tsan build-install build-fuzz

.PHONY: soak
soak: deps
	$(call build,build,$(DEV_ARGS))
	cd build && QK_TAGDB_SOAK=20 ctest --output-on-failure -j $(JOBS) \
	  -R 'TagdbTreeModel|TagdbCrash|TagdbWriters'

# The fuzz targets, built with clang, libFuzzer, ASan and UBSan in
# build-fuzz, run one after another for FUZZ_SECONDS each: the tag
# database's readers (qkUtil.m/src/tagdb/fuzz) and the utilities' parsers
# (qkUtil.m/src/fuzz: Base64, UUID texts, value records, the tokenizer, the
# formatting engine). Each grows its corpus in build-fuzz/corpus/<target>
# from the committed inputs under the target's regressions/<target> (the tag
# database's targets also seed it at start-up). The stores live on tmpfs
# when there is one: the targets rewrite their files for every input. A
# failing input is left in build-fuzz/artifacts/<target>/; the run log in
# build-fuzz/logs/<target>/. FUZZ_TARGETS picks a subset.
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= version index node log interleave base64 uuid record strtok format
FUZZ_TMPDIR  ?= $(shell [ -d /dev/shm ] && [ -w /dev/shm ] && echo /dev/shm || echo $${TMPDIR:-/tmp})

.PHONY: fuzz fuzz-deps
fuzz-deps: deps
	$(call ensure,$(FUZZ_PKGS))

fuzz: fuzz-deps
	CC=clang CXX=clang++ $(CMAKE) -S . -B build-fuzz -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQKUTIL_FUZZ=ON -DQKUTIL_BUILD_TESTS=OFF -DQKUTIL_BUILD_EXAMPLES=OFF
	$(CMAKE) --build build-fuzz -j $(JOBS)
	@for t in $(FUZZ_TARGETS); do \
	  bin=$(CURDIR)/build-fuzz/qkUtil.m/src/tagdb/fuzz/tagdb_fuzz_$$t; \
	  inputs=$(CURDIR)/qkUtil.m/src/tagdb/fuzz/regressions/$$t; \
	  if [ ! -x $$bin ]; then \
	    bin=$(CURDIR)/build-fuzz/qkUtil.m/src/fuzz/qk_fuzz_$$t; \
	    inputs=$(CURDIR)/qkUtil.m/src/fuzz/regressions/$$t; \
	  fi; \
	  mkdir -p build-fuzz/corpus/$$t build-fuzz/artifacts/$$t build-fuzz/logs/$$t; \
	  echo "fuzzing $$t for $(FUZZ_SECONDS) s"; \
	  ( cd build-fuzz/logs/$$t && TMPDIR=$(FUZZ_TMPDIR) \
	    QK_TAGDB_FUZZ_SEEDS=$(CURDIR)/build-fuzz/corpus/$$t \
	    $$bin -jobs=1 -workers=1 \
	      -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=2048 -timeout=10 \
	      -artifact_prefix=$(CURDIR)/build-fuzz/artifacts/$$t/ \
	      $(CURDIR)/build-fuzz/corpus/$$t $$inputs ) \
	    >/dev/null 2>&1; rc=$$?; \
	  grep -E '^#[0-9]+[[:space:]]+DONE|^Done' build-fuzz/logs/$$t/fuzz-0.log; \
	  if [ $$rc -ne 0 ]; then tail -40 build-fuzz/logs/$$t/fuzz-0.log; exit 1; fi; \
	done
