# Thin driver around CMake. `make run` starts the console tamix on the
# bundled kernel (`make run-tamcon` the minimal console tamcon); `make test`
# builds and runs the whole test suite.
BUILD   ?= build
ASAN    ?= build-asan
JOBS    ?= $(shell nproc)
CMAKE_FLAGS ?=
PREFIX  ?= /usr/local

.PHONY: all setup build run run-tamcon test sanitize bench install fuzz clean

all: build

setup:
	@./scripts/setup.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: setup $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

run: build
	$(BUILD)/bin/tamix

run-tamcon: build
	cd $(BUILD)/bin && ./tamcon

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

$(ASAN)/CMakeCache.txt:
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DTAMIX_SANITIZE=ON -DTAMIX_BENCH=OFF $(CMAKE_FLAGS)

sanitize: setup $(ASAN)/CMakeCache.txt
	cmake --build $(ASAN) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN) --output-on-failure -j $(JOBS)

bench: build
	$(BUILD)/bin/tamix_bench
	$(BUILD)/bin/tamix_console_bench

# The library, its header, the programs, tamix.pc and the CMake package.
install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

# Every fuzz harness for FUZZ_SECONDS (default 60) from its stored corpus
# (clang); FUZZ_MERGE=1 keeps what they found. See scripts/fuzz.sh.
fuzz:
	./scripts/fuzz.sh

clean:
	rm -rf $(BUILD) $(ASAN) build-fuzz
