# Thin front end over CMake. `make` builds the tools into build/.
BUILD ?= build
JOBS ?= $(shell nproc)
PREFIX ?= /usr/local
CMAKE_FLAGS ?=

.PHONY: all deps check check-fuzz check-ubsan coverage demo bench fuzz fuzz-build fuzz-coverage fuzz-mutations \
  crashtest install deb deb-check clean

all: $(BUILD)/Makefile
	cmake --build $(BUILD) -j$(JOBS)

$(BUILD)/Makefile:
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)

# What each use needs, and only that (see tools/install-deps).
deps:
	tools/install-deps test

# Every test; then each fuzz target briefly, over its saved failures first;
# then the tests again with every undefined behaviour an error.
check: deps
	cmake -S . -B $(BUILD) -DPARLOVA_TESTS=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)
	cd $(BUILD) && ctest --output-on-failure -j$(JOBS)
	$(MAKE) check-fuzz
	$(MAKE) check-ubsan

FUZZ_CHECK_SECONDS ?= 15
check-fuzz: fuzz-build
	tests/fuzz/run-fuzzers $(BUILD)-fuzz $(BUILD) $(FUZZ_CHECK_SECONDS)

# The tests under UndefinedBehaviorSanitizer, the kill tests (which prove
# other things, at length) left out.
check-ubsan: deps
	cmake -S . -B $(BUILD)-ubsan -DPARLOVA_TESTS=ON -DPARLOVA_UBSAN=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD)-ubsan -j$(JOBS)
	cd $(BUILD)-ubsan && UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j$(JOBS) -E '^(Crash|Faults|Layering)\.'

# Line and branch coverage of the program (the layers, the tools and the
# mail module) by the tests, as gcovr counts it; the kill tests, which prove
# other things at length, left out.
COVERAGE_FLAGS = -DCMAKE_BUILD_TYPE=Debug -DPARLOVA_TESTS=ON -DCMAKE_CXX_FLAGS=--coverage \
  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_MODULE_LINKER_FLAGS=--coverage
coverage: deps
	tools/install-deps test gcovr
	cmake -S . -B $(BUILD)-coverage $(COVERAGE_FLAGS) $(CMAKE_FLAGS)
	cmake --build $(BUILD)-coverage -j$(JOBS) --target parlova_tests
	find $(BUILD)-coverage -name '*.gcda' -delete
	cd $(BUILD)-coverage && ctest -j$(JOBS) -E '^(Crash|Faults|Layering|Fuzz)\.' > ctest.log || (tail -40 ctest.log; false)
	gcovr --root . --object-directory $(BUILD)-coverage --exclude-unreachable-branches --exclude-throw-branches \
	  --filter '(foundation|archiving|platform|context|mail|history|model|generator|driver|web|tools)/' \
	  --exclude 'tools/parlova-samples' --txt $(BUILD)-coverage/coverage.txt --print-summary

demo:
	tools/install-deps demo
	$(MAKE) all
	tools/demo.sh $(BUILD)

bench:
	tools/install-deps bench
	cmake -S . -B $(BUILD)-bench -DCMAKE_BUILD_TYPE=Release -DPARLOVA_TESTS=OFF -DPARLOVA_BENCH=ON
	cmake --build $(BUILD)-bench -j$(JOBS) --target parlova_bench parlova parlova-inspect parlova-defaults parlova-search parlova-web
	$(BUILD)-bench/bench/parlova_bench $(FIGURES)

# Every coverage-guided fuzz target (clang's libFuzzer with AddressSanitizer
# and UBSan) for FUZZ_SECONDS each; the grown corpora stay in $(BUILD)-fuzz.
FUZZ_SECONDS ?= 600
fuzz: fuzz-build
	tests/fuzz/run-fuzzers $(BUILD)-fuzz $(BUILD) $(FUZZ_SECONDS)

fuzz-build:
	tools/install-deps fuzz
	cmake -S tests/fuzz/targets -B $(BUILD)-fuzz -DCMAKE_CXX_COMPILER=clang++
	cmake --build $(BUILD)-fuzz -j$(JOBS)
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target parlova-samples

# The decoders' lines that the corpora of `make fuzz` reach (goal: 90%).
fuzz-coverage: fuzz-build
	cmake -S tests/fuzz/targets -B $(BUILD)-fuzz-coverage -DCMAKE_CXX_COMPILER=clang++ -DPARLOVA_FUZZ_COVERAGE=ON
	cmake --build $(BUILD)-fuzz-coverage -j$(JOBS)
	tests/fuzz/fuzz-coverage $(BUILD)-fuzz-coverage $(BUILD)-fuzz

# A long mutation run over both transcript formats under AddressSanitizer.
FUZZ_CASES ?= 2000000
fuzz-mutations: deps
	cmake -S . -B $(BUILD) -DPARLOVA_TESTS=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target parlova_fuzz_mutations
	$(BUILD)/tests/parlova_fuzz_mutations $(FUZZ_CASES) $$(date +%s)

# The long crash run: at least 5,000 kills of single runs, 2,000 of
# catch-ups, 300 pairs of overlapping runs and 300 power cuts.
CRASH_KILLS ?= 5000
CRASH_CATCH_UP_KILLS ?= 2000
CRASH_PAIRS ?= 300
CRASH_POWER_CUTS ?= 300
crashtest: deps
	cmake -S . -B $(BUILD) -DPARLOVA_TESTS=ON $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target parlova parlova-defaults parlova-samples
	/usr/bin/python3 tests/crash/crashtest.py $(BUILD) --kills $(CRASH_KILLS) \
	  --catch-up-kills $(CRASH_CATCH_UP_KILLS) --pairs $(CRASH_PAIRS)
	/usr/bin/python3 tests/crash/powercut.py $(BUILD) --cuts $(CRASH_POWER_CUTS)

# The tools into $(PREFIX)/bin (their modules, manual pages, shipped files
# and systemd user units beside), then parlova --setup for this user: the
# templates, word lists and icon into ~/Library/Parlova (yours are kept).
install: all
	cmake -S . -B $(BUILD) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS)
	cmake --install $(BUILD)
	$(PREFIX)/bin/parlova --setup

# The Debian package (build/parlova_*.deb), and its check: lintian, installed
# into this machine (as root), used in a scratch home, removed again.
deb:
	tools/install-deps package
	tools/make-deb $(BUILD)

deb-check: deb
	cmake -S . -B $(BUILD) $(CMAKE_FLAGS)
	cmake --build $(BUILD) -j$(JOBS) --target parlova-samples
	tools/deb-check $(BUILD)

clean:
	rm -rf $(BUILD) $(BUILD)-bench $(BUILD)-coverage $(BUILD)-fuzz $(BUILD)-fuzz-coverage $(BUILD)-ubsan
