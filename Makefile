# The project's commands. Every target installs what is missing first (scripts/setup.sh).
JOBS ?= 2
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)

.PHONY: setup build check test test-release test-asan test-tsan demo clean

setup:
	@bash scripts/setup.sh

build: setup
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS)

# Normal build and its tests only: the quick loop while developing.
check: build
	cd build/release && ctest $(CTEST_FLAGS)

# Everything: the normal build, AddressSanitizer+UndefinedBehaviorSanitizer, ThreadSanitizer.
test: test-release test-asan test-tsan

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

# The main job: the simulator and the command-line tool acquire one marking job into out/demo.csv and
# out/demo.vcd and print its summary. Builds only the two programs.
demo: setup
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim
	@bash scripts/demo.sh

clean:
	rm -rf build
