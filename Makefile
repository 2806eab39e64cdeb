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
#
# Missing Debian packages are installed with apt-get on first use.

JOBS   ?= $(shell nproc)
PREFIX ?= /usr/local
CMAKE  ?= cmake
SUDO   := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

BASE_PKGS  := cmake g++ make pkg-config libgtest-dev libgmock-dev
BENCH_PKGS := libbenchmark-dev libjemalloc-dev libmimalloc-dev libgoogle-perftools-dev \
              liblmdb-dev libsqlite3-dev libleveldb-dev libfmt-dev
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
	rm -rf build build-bench build-asan build-tsan build-install

.PHONY: soak
soak: deps
	$(call build,build,$(DEV_ARGS))
	cd build && QK_TAGDB_SOAK=20 ctest --output-on-failure -j $(JOBS) \
	  -R 'TagdbTreeModel|TagdbCrash|TagdbWriters'
