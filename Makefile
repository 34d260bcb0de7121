# Entry points for people and CI. Everything builds out of tree under build/.
#   make run         build, start the example platform in the foreground (Ctrl-C stops it)
#   make test        build and run every test
#   make test-asan   the same under AddressSanitizer and UndefinedBehaviorSanitizer
#   make test-release  the same built as Release (-O3), where gcc sees more
#   make bench       build and run the benchmarks
#   make fuzz        build the fuzz targets with clang and run each briefly
#   make soak        ten minutes of the example platform under traffic and chaos; writes docs/soak.md
#   make fault-matrix  run every mode against every fault, write docs/fault-matrix.md
JOBS ?= $(shell nproc)
BUILD ?= build
CMAKE_FLAGS ?=

.PHONY: all deps build test build-asan test-asan build-release test-release bench fuzz fault-matrix run soak clean

all: build

deps:
	@scripts/deps.sh

build: deps
	cmake -S . -B $(BUILD) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD) -j $(JOBS)

# ctest lists skipped tests without their reasons; test-skips.sh prints them
# from ctest's log at the end, and the run keeps ctest's exit status.
test: build
	@status=0; ctest --test-dir $(BUILD) -j $(JOBS) --output-on-failure || status=$$?; \
	  scripts/test-skips.sh $(BUILD); exit $$status

build-asan: deps
	cmake -S . -B $(BUILD)-asan -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCOMP_SANITIZE=ON -DCOMP_BENCH=OFF >/dev/null
	cmake --build $(BUILD)-asan -j $(JOBS)

test-asan: build-asan
	@status=0; ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --test-dir $(BUILD)-asan -j $(JOBS) --output-on-failure || status=$$?; \
	  scripts/test-skips.sh $(BUILD)-asan; exit $$status

build-release: deps
	cmake -S . -B $(BUILD)-release -G Ninja -DCMAKE_BUILD_TYPE=Release $(CMAKE_FLAGS) >/dev/null
	cmake --build $(BUILD)-release -j $(JOBS)

test-release: build-release
	ctest --test-dir $(BUILD)-release -j $(JOBS) --output-on-failure

bench: build
	scripts/bench.sh $(BUILD)

fuzz:
	COMP_WANT_FUZZ=1 scripts/deps.sh
	cmake -S . -B $(BUILD)-fuzz -G Ninja -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=clang++ -DCMAKE_C_COMPILER=clang \
	  -DCOMP_FUZZ=ON -DCOMP_TESTS=OFF -DCOMP_BENCH=OFF >/dev/null
	cmake --build $(BUILD)-fuzz -j $(JOBS)
	scripts/fuzz.sh $(BUILD)-fuzz $${FUZZ_SECONDS:-20}

fault-matrix: build
	scripts/fault-matrix.sh $(BUILD)

run: build
	scripts/run-example.sh $(BUILD)

# SOAK_SECONDS shortens it; the report of the committed run is docs/soak.md.
soak: deps
	scripts/soak.sh --build $(BUILD) --seconds $${SOAK_SECONDS:-600} --report docs/soak.md

clean:
	rm -rf $(BUILD) $(BUILD)-asan $(BUILD)-release $(BUILD)-fuzz
