# The project's commands. Every target installs what is missing first (scripts/setup.sh).
JOBS ?= 2
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)

.PHONY: setup build check test test-release test-asan test-tsan demo mutants clean

setup:
	@bash scripts/setup.sh

build: setup
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

# Normal build and its tests only: the quick loop while developing.
check: build
	cd build/release && ctest $(CTEST_FLAGS)

# Everything: the normal build, AddressSanitizer+UndefinedBehaviorSanitizer, ThreadSanitizer, the 32-bit library,
# a short fuzzing run and the valgrind checks.
test: test-release test-asan test-tsan test-m32 fuzz-ci test-valgrind

test-release: check

test-asan: setup
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	cd build/asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		ctest $(CTEST_FLAGS)

test-tsan: setup
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 ctest $(CTEST_FLAGS)

.PHONY: test-m32 test-valgrind fuzz fuzz-ci fuzz-build

# The shipped 32-bit x86 library with the C test programs (layouts, exports, a session with the simulator), built
# with -m32 in build/m32; there is no 32-bit GoogleTest. The simulator is the normal build's.
test-m32: setup
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb-sim
	cmake --preset m32 -DOLTB_SIMULATOR=$(CURDIR)/build/release/tools/oltb-sim/oltb-sim >/dev/null
	cmake --build --preset m32 -j $(JOBS)
	cd build/m32 && ctest $(CTEST_FLAGS)

# The tests that connect to the fake server or the simulator, under valgrind memcheck: no leaks, no invalid
# accesses. The exit test of api_connection_test runs its child (process exit with open handles) under valgrind
# too; the long stream-integrity case of api_reading_test is left out.
VALGRIND = valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect --error-exitcode=1
test-valgrind: build
	cd build/release/tests/api && $(VALGRIND) ./api_c_simulator_test ../../tools/oltb-sim/oltb-sim 127.0.1.65
	cd build/release/tests/api && $(VALGRIND) --trace-children=yes ./api_connection_test
	cd build/release/tests/api && $(VALGRIND) ./api_reading_test '--gtest_filter=-StreamIntegrity.*'
	cd build/release/tests/api && $(VALGRIND) ./api_handle_numbering_test

# Fuzzing with clang and libFuzzer in build/fuzz: `make fuzz` runs each target for FUZZ_SECONDS (60); `make
# fuzz-ci` runs the decoding path for 40 s and the two small parsers for 10 s each. Figures and failing inputs:
# fuzz/run.sh.
FUZZ_SECONDS ?= 60
fuzz-build: setup
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)

fuzz: fuzz-build
	@bash fuzz/run.sh $(FUZZ_SECONDS)

fuzz-ci: fuzz-build
	@bash fuzz/run.sh 40 10

# The main job: the simulator and the command-line tool acquire one marking job into out/demo.csv and
# out/demo.vcd and print its summary. Builds only the two programs.
demo: setup
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim
	@bash scripts/demo.sh

# Mutation check of the test suite: every slip listed in scripts/mutants.txt is built alone in a scratch copy
# (build/mutants, kept for the next run) and run against the suite until its first failure. Prints the mutants no
# test notices and "caught N of M" last; exits 0 whatever survived. ONLY=id,glob,substring runs a selection.
mutants: setup
	/usr/bin/python3 scripts/mutants.py --jobs $(JOBS) $(if $(ONLY),--only '$(ONLY)')

.PHONY: bench

# Benchmarks (preset bench, build/bench): the decoding core on blocks in memory, reading over loopback from the
# simulator, and the CPU and memory cost at the card's rate. One line per figure, each beside its limit measured
# in the same run; they gate nothing. Takes about a minute and a half.
bench: setup
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	build/bench/bench/oltb_bench_decode
	build/bench/bench/oltb_bench_stream

clean:
	rm -rf build
