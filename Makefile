# The project's commands; `make` alone lists them. Every target first installs the Debian packages it needs and
# lacks (scripts/setup.sh TARGET), and only those.
JOBS ?= 2
# The test suites use fixed loopback addresses of their own, so two of them must not run at once: the targets run
# one after another even under make -j (each builds with -j $(JOBS) itself).
.NOTPARALLEL:
MAKEFLAGS += --no-print-directory
CTEST_FLAGS ?= --output-on-failure -j $(JOBS)
SIM_ADDRESS ?= 127.0.0.9
SETUP = @bash scripts/setup.sh

.DEFAULT_GOAL := help
.PHONY: help demo report-screenshot sim sim-stop readme build check test test-release test-asan test-tsan test-m32 test-valgrind fuzz fuzz-ci \
	fuzz-build soak bench mutants format format-check install package test-install clean

help:
	@echo "make demo        build oltb and oltb-sim, capture one marking job of the simulator to out/demo.csv, .vcd"
	@echo "                 and write its report page out/demo.html"
	@echo "make report-screenshot   the README's picture docs/report.png of out/demo.html, in headless Chromium"
	@echo "make monitor-screenshot  the README's picture docs/monitor.png of oltb monitor's live page"
	@echo "make sim         start oltb-sim in the background on $(SIM_ADDRESS) (make sim-stop ends it)"
	@echo "make readme      run every command of the README in order, as one script (scripts/readme.sh)"
	@echo "make soak-monitor   oltb monitor for MONITOR_SECONDS (3600) against a simulator: memory must stay flat"
	@echo "make build       the release build: library, tools, tests (build/release)"
	@echo "make check       the release build and its tests"
	@echo "make test        everything CI runs: check, ASan+UBSan, TSan, 32-bit, fuzzing, valgrind, installation"
	@echo "make test-asan, test-tsan, test-m32, test-valgrind, fuzz-ci, test-install   one step of make test each"
	@echo "make fuzz        each fuzz target for FUZZ_SECONDS (60)"
	@echo "make soak        the interleaving explorer of the C interface for SECONDS (600), PRESET=release|asan|tsan"
	@echo "make format      reformat the C and C++ files in the house style (.clang-format); make format-check checks"
	@echo "make bench       the benchmarks, each figure beside its limit"
	@echo "make mutants     the mutation check of the test suite (ONLY=filter for some mutants)"
	@echo "make install     install library, header, pkg-config and CMake files, tools, manual pages and the Python"
	@echo "                 package into PREFIX ($(PREFIX))"
	@echo "make package     the Debian packages in build/release/packages, checked with lintian"
	@echo "make clean       remove build/"

# The main job: the simulator and the command-line tool acquire one marking job into out/demo.csv and out/demo.vcd,
# print its summary and write its report page out/demo.html. Builds the two programs and the libraries the Python
# package loads (the README's Python example runs next).
demo:
	$(SETUP) demo
	cmake --preset release -DOLTB_BUILD_TESTS=OFF >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim oltb oltb_analysis_shared
	@bash scripts/demo.sh

# The README's screenshot of the report page: make demo's page, taken by the script of the browser test, which also
# checks the page.
report-screenshot: demo
	$(SETUP) browser
	python3 tests/report/check_report_page.py --page out/demo.html --screenshot docs/report.png

# The README's screenshot of oltb monitor's live page: its browser test, with a head that changes halfway.
.PHONY: monitor-screenshot
monitor-screenshot:
	$(SETUP) build
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim
	/usr/bin/python3 tests/monitor/check_monitor.py page --tool build/release/tools/oltb/oltb \
		--simulator build/release/tools/oltb-sim/oltb-sim --screenshot docs/monitor.png

# The simulator in the background, for the README's examples: its output goes to build/sim.log.
sim:
	$(SETUP) demo
	cmake --preset release -DOLTB_BUILD_TESTS=OFF >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim
	@bash scripts/sim.sh start $(SIM_ADDRESS)

sim-stop:
	@bash scripts/sim.sh stop

# The README's commands in order as one script, as a new user pastes them (not make test itself, nor apt-get).
readme:
	$(SETUP) readme
	@bash scripts/readme.sh

# oltb monitor for MONITOR_SECONDS against a simulator that is killed and started again every two minutes, with a
# live page open, scrapes and a rotating save directory; once the history of MONITOR_HISTORY jobs (a job every
# 0.62 s) is full, memory must stay flat (scripts/soak_monitor.py; figures in docs/performance.md).
MONITOR_SECONDS ?= 3600
MONITOR_HISTORY ?= 1000
.PHONY: soak-monitor
soak-monitor:
	$(SETUP) build
	cmake --preset release >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb_tool oltb-sim
	/usr/bin/python3 scripts/soak_monitor.py --tool build/release/tools/oltb/oltb \
		--simulator build/release/tools/oltb-sim/oltb-sim --seconds $(MONITOR_SECONDS) --history $(MONITOR_HISTORY)

build:
	$(SETUP) build
	cmake --preset release -DOLTB_BUILD_TESTS=ON >/dev/null
	cmake --build --preset release -j $(JOBS)

# Normal build and its tests only: the quick loop while developing.
check: build
	cd build/release && ctest $(CTEST_FLAGS)

# Everything: the normal build, AddressSanitizer+UndefinedBehaviorSanitizer, ThreadSanitizer, the 32-bit library,
# a short fuzzing run, the valgrind checks and the installation.
test:
	$(SETUP) build bench m32 fuzz valgrind package format
	$(MAKE) format-check test-release test-asan test-tsan test-m32 fuzz-ci test-valgrind test-install

test-release: check

# One house style for every C and C++ file (.clang-format): format-check lists the files that differ from it and
# fails, format rewrites them.
FORMATTED = git ls-files '*.cpp' '*.h' '*.c'
format-check:
	$(SETUP) format
	@$(FORMATTED) | xargs clang-format --dry-run -Werror

format:
	$(SETUP) format
	@$(FORMATTED) | xargs clang-format -i

test-asan:
	$(SETUP) asan
	cmake --preset asan >/dev/null
	cmake --build --preset asan -j $(JOBS)
	ctest --preset asan $(CTEST_FLAGS)

test-tsan:
	$(SETUP) tsan
	cmake --preset tsan >/dev/null
	cmake --build --preset tsan -j $(JOBS)
	ctest --preset tsan $(CTEST_FLAGS)

# The shipped 32-bit x86 library with the C test programs (layouts, exports, a session with the simulator), built
# with -m32 in build/m32; there is no 32-bit GoogleTest. The simulator is the normal build's. Last the library is
# installed into a scratch prefix and a -m32 program built against it (tests/install).
test-m32:
	$(SETUP) build m32
	cmake --preset release -DOLTB_BUILD_TESTS=ON >/dev/null
	cmake --build --preset release -j $(JOBS) --target oltb-sim
	cmake --preset m32 -DOLTB_SIMULATOR=$(CURDIR)/build/release/tools/oltb-sim/oltb-sim >/dev/null
	cmake --build --preset m32 -j $(JOBS)
	cd build/m32 && ctest $(CTEST_FLAGS)
	SIMULATOR=$(CURDIR)/build/release/tools/oltb-sim/oltb-sim bash tests/install/check_install.sh build/m32 32 i386-linux-gnu

# The tests that connect to the fake server or the simulator, under valgrind memcheck: no leaks, no invalid
# accesses. The C program ends with a connection still open: the library ends it at process exit.
VALGRIND = valgrind -q --leak-check=full --errors-for-leak-kinds=definite,indirect --error-exitcode=1
test-valgrind: build
	$(SETUP) valgrind
	cd build/release/tests/api && ../../../../tests/api/with_simulator.sh ../../tools/oltb-sim/oltb-sim 127.0.1.65 \
		$(VALGRIND) ./api_c_simulator_test 127.0.1.65
	cd build/release/tests/api && $(VALGRIND) ./oltb_api_test
	cd build/release/tests/client && $(VALGRIND) ./oltb_trace_buffer_client_test

# Fuzzing with clang and libFuzzer in build/fuzz: `make fuzz` runs each target for FUZZ_SECONDS (60); `make
# fuzz-ci` runs them for 67 s together, the decoding path and the .h5 reader longest. Figures and failing inputs:
# fuzz/run.sh.
FUZZ_SECONDS ?= 60
fuzz-build:
	$(SETUP) build fuzz
	cmake --preset fuzz >/dev/null
	cmake --build --preset fuzz -j $(JOBS)

fuzz: fuzz-build
	@bash fuzz/run.sh $(FUZZ_SECONDS)

fuzz-ci: fuzz-build
	@bash fuzz/run.sh trace_stream_fuzzer=12 response_frame_fuzzer=4 config_payload_fuzzer=4 analysis_fuzzer=10 \
		capture_csv_fuzzer=8 capture_h5_fuzzer=12 job_file_fuzzer=4 replay_fuzzer=8 sim_command_fuzzer=5

# The interleaving explorer of the C interface (tests/explorer; a 25 s run is part of every build's tests) for SECONDS
# in the build PRESET (release, asan or tsan), from a random first seed. A failure prints the seed and the calls of
# its schedule and exits 1; build/PRESET/tests/explorer/api_explorer --seed N --repeat 20 runs that schedule again.
SECONDS ?= 600
PRESET ?= release
soak:
	$(SETUP) $(if $(filter release,$(PRESET)),build,$(PRESET))
	cmake --preset $(PRESET) >/dev/null
	cmake --build --preset $(PRESET) -j $(JOBS) --target api_explorer
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
		TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
		build/$(PRESET)/tests/explorer/api_explorer --seconds $(SECONDS) --workers 4

# Mutation check of the test suite: every slip listed in scripts/mutants.txt is built alone in a scratch copy
# (build/mutants, kept for the next run) and run against the suite until its first failure. Prints the mutants no
# test notices and "caught N of M" last; exits 0 whatever survived. ONLY=id,glob,substring runs a selection.
mutants:
	$(SETUP) mutants
	/usr/bin/python3 scripts/mutants.py --jobs $(JOBS) $(if $(ONLY),--only '$(ONLY)')

# Benchmarks (preset bench, build/bench): the decoding core on blocks in memory, reading over loopback from the
# simulator, the CPU and memory cost at the card's rate, the trace analysis, the tool's writers, and oltb capture
# end to end and at the card's rate. One line per figure, each beside its limit measured in the same run; they gate
# nothing.
bench:
	$(SETUP) bench
	cmake --preset bench >/dev/null
	cmake --build --preset bench -j $(JOBS)
	build/bench/bench/oltb_bench_decode
	build/bench/bench/oltb_bench_stream
	build/bench/bench/oltb_bench_analysis
	build/bench/bench/oltb_bench_writers
	build/bench/bench/oltb_bench_capture
	PYTHONPATH=python OLTB_LIBRARY=$(CURDIR)/build/bench/libOLVEN.TALIX3.Native.TraceBufferLib.so /usr/bin/python3 \
		bench/python_read_bench.py build/bench/tools/oltb-sim/oltb-sim build/bench/bench/oltb_read_rate

# Installation (cmake/OltbInstall.cmake): builds only what is installed. Under /usr/local run as root, which also
# refreshes the loader's cache (ldconfig).
PREFIX ?= /usr/local
install:
	$(SETUP) demo
	cmake --preset release -DOLTB_BUILD_TESTS=OFF >/dev/null
	cmake --build --preset release -j $(JOBS) --target shipped
	cmake --install build/release --prefix $(PREFIX)
	@[ "$$(id -u)" != 0 ] || ldconfig

# The Debian packages (cmake/OltbPackaging.cmake) in build/release/packages; lintian must report no error.
package:
	$(SETUP) package
	cmake --preset release -DOLTB_BUILD_TESTS=OFF >/dev/null
	cmake --build --preset release -j $(JOBS) --target shipped
	rm -rf build/release/packages
	cd build/release && cpack >/dev/null
	lintian --fail-on error build/release/packages/*.deb
	@ls build/release/packages/*.deb

# The installation as another project uses it: a C program built against a scratch prefix with find_package and
# with pkg-config runs against the installed simulator; the packages hold what they should (tests/install).
test-install: package
	bash tests/install/check_install.sh build/release 1

clean:
	rm -rf build
