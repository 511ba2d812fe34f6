#!/usr/bin/python3
"""Mutation check of the test suite (make mutants).

Each mutant in scripts/mutants.txt is one small slip a developer could make in the library, the tool or the
simulator. The runner copies the working tree into build/mutants/src, builds it there once unmutated and runs the
suite once (both must pass; the same for the ThreadSanitizer build when mutants need it), then for every mutant:
puts the mutated file in place, rebuilds incrementally, runs the suite until the first failure and puts the file
back. A mutant is

  caught        it built and a test failed, crashed or timed out;
  survived      it built and every test passed: the suite does not notice this slip;
  build-failed  it did not compile: a bad mutant, not a catch;
  stale         its find text does not occur exactly once in its file any more (the code changed).

Survivors, build failures and stale mutants are printed on standard output, followed by "caught N of M" as the
last line (M: the mutants that applied and built). Progress goes to standard error. The exit status is 0 whatever
survived; only a broken unmutated build or suite (or a broken list) makes it non-zero.

The scratch directory stays between runs so that the next run builds incrementally:
  build/mutants/src       the copy of the working tree (files as `git ls-files -co --exclude-standard` lists them)
  build/mutants/release   the Release build of it with tests (no benchmarks) that most mutants run in
  build/mutants/src-tsan, build/mutants/tsan
                          a second copy and its ThreadSanitizer build, made only when mutants marked "build: tsan"
                          are selected (some slips, a lock left out, show only there)
  build/mutants/logs      build and test output of the mutants worth a look (of every mutant with --keep)
  build/mutants/results.txt  one line per mutant of the last run

To keep each mutant cheap the builds use Ninja when it is installed, lld or gold as linker, and ccache when it is
installed. The tests of the mutated part run first (a failure there ends the mutant at once), then the rest; the
browser test of the report page (label browser) is left out, as no mutant is in the page and it is the slowest
test. A slip often makes a test wait for something that never comes, so a mutant's test program may run only a few times as long as the slowest test of the unmutated run
(--test-timeout-factor, within --test-timeout-floor and --test-timeout) and never longer than its own TIMEOUT; the
tests of one mutant together stop after --mutant-timeout seconds. When the machine allows it, each test run gets a
network namespace of its own, so the fixed loopback addresses of the tests cannot collide with another test run on
the same machine.
"""

import argparse
import fnmatch
import os
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass, field
from pathlib import Path
from typing import Dict, List, Optional, Tuple

ROOT = Path(__file__).resolve().parent.parent
DEFAULT_LIST = ROOT / "scripts" / "mutants.txt"
SCRATCH = ROOT / "build" / "mutants"

FOLDERS = ["events/", "client/", "api/", "tools/oltb/", "tools/oltb-sim/"]

# Tests that run first for a mutant of each folder: the ones most likely to notice a slip there.
FOCUS_TESTS = {
    "events/": r"^(oltb_events_test|fuzz_replay_trace_stream_fuzzer|api_reading_test)$",
    "client/": r"^(oltb_response_frame_scanner_test|oltb_trace_configuration_test|oltb_kissnet_test"
               r"|oltb_trace_buffer_client_test|fuzz_replay_response_frame_fuzzer|fuzz_replay_config_payload_fuzzer)$",
    "api/": r"^api_",
    "tools/oltb/": r"^cli_",
    "tools/oltb-sim/": r"^(oltb_sim_test|simulator_.*|faults_simulator_test|api_c_simulator_test"
                       r"|cli_demo_script_test|cli_tool_process_test)$",
}

BUILD_KINDS = {
    "release": ["-DCMAKE_BUILD_TYPE=Release"],
    "tsan": ["-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DOLTB_SANITIZER=thread"],
}
TEST_ENVIRONMENT = {
    "release": {},
    "tsan": {"TSAN_OPTIONS": "halt_on_error=1:second_deadlock_stack=1"},
}

FIELDS = {"file", "why", "find", "replace", "build", "equivalent", "tests"}
ID_PATTERN = re.compile(r"^[a-z0-9][a-z0-9-]*$")


class InfrastructureError(Exception):
    """The unmutated build or suite fails, or the scratch directory cannot be prepared."""


def read_text(path: Path) -> str:
    """The file's text with its line ends as they are."""
    with open(path, encoding="utf-8", newline="") as file:
        return file.read()


def write_text(path: Path, text: str) -> None:
    with open(path, "w", encoding="utf-8", newline="") as file:
        file.write(text)


# ---- the list of mutants ----------------------------------------------------------------------------------------

@dataclass
class Mutant:
    id: str
    line: int
    fields: Dict[str, str] = field(default_factory=dict)

    @property
    def file(self) -> str:
        return self.fields["file"]

    @property
    def build(self) -> str:
        return self.fields.get("build", "release")

    @property
    def folder(self) -> str:
        for folder in sorted(FOLDERS, key=len, reverse=True):
            if self.file.startswith(folder):
                return folder
        return "other"


def parse_list(path: Path) -> Tuple[List[Mutant], List[str]]:
    """Reads the list; returns the mutants and the problems found (missing fields, unknown keys, duplicates)."""
    mutants: List[Mutant] = []
    problems: List[str] = []
    current: Optional[Mutant] = None
    lines = read_text(path).split("\n")
    index = 0
    while index < len(lines):
        line = lines[index]
        number = index + 1
        index += 1
        if not line.strip() or line.startswith("#"):
            continue
        if line.startswith("[") and line.rstrip().endswith("]"):
            current = Mutant(line.strip()[1:-1], number)
            mutants.append(current)
            continue
        key, colon, rest = line.partition(":")
        if current is None or not colon or key not in FIELDS:
            where = f"[{current.id}] " if current else ""
            problems.append(f"{path.name}:{number}: {where}line not understood: {line!r}")
            continue
        if key in current.fields:
            problems.append(f"{path.name}:{number}: [{current.id}] {key} given twice")
        value = rest[1:] if rest.startswith(" ") else rest
        if value == "<<<":
            # A block: the lines up to the closing ">>>" line, verbatim.
            block: List[str] = []
            while index < len(lines) and lines[index] != ">>>":
                block.append(lines[index])
                index += 1
            if index == len(lines):
                problems.append(f"{path.name}:{number}: [{current.id}] {key} block without closing >>>")
            index += 1
            value = "\n".join(block)
        current.fields[key] = value

    seen = set()
    for mutant in mutants:
        if not ID_PATTERN.match(mutant.id):
            problems.append(f"{path.name}:{mutant.line}: bad id [{mutant.id}] (lower case, digits and '-')")
        if mutant.id in seen:
            problems.append(f"{path.name}:{mutant.line}: id [{mutant.id}] given twice")
        seen.add(mutant.id)
        for required in ("file", "why", "find", "replace"):
            if required not in mutant.fields:
                problems.append(f"{path.name}:{mutant.line}: [{mutant.id}] has no {required}:")
        if mutant.fields.get("find") == "":
            problems.append(f"{path.name}:{mutant.line}: [{mutant.id}] has an empty find text")
        if mutant.fields.get("find") is not None and mutant.fields.get("find") == mutant.fields.get("replace"):
            problems.append(f"{path.name}:{mutant.line}: [{mutant.id}] replaces its find text by itself")
        if mutant.build not in BUILD_KINDS:
            problems.append(f"{path.name}:{mutant.line}: [{mutant.id}] unknown build: {mutant.build}")
    return mutants, problems


def occurrences(mutant: Mutant, tree: Path) -> int:
    path = tree / mutant.file
    if not path.is_file():
        return 0
    return read_text(path).count(mutant.fields["find"])


def select(mutants: List[Mutant], only: Optional[str]) -> List[Mutant]:
    """--only: ids, globs (* ? [) or substrings of an id or a file name, or a build kind, comma-separated."""
    if not only:
        return list(mutants)
    patterns = [pattern.strip() for pattern in only.split(",") if pattern.strip()]

    def matches(mutant: Mutant, pattern: str) -> bool:
        if any(c in pattern for c in "*?["):
            return fnmatch.fnmatchcase(mutant.id, pattern) or fnmatch.fnmatchcase(mutant.file, pattern)
        return pattern in mutant.id or pattern in mutant.file or pattern == mutant.build

    return [mutant for mutant in mutants if any(matches(mutant, pattern) for pattern in patterns)]


# ---- helpers ----------------------------------------------------------------------------------------------------

def progress(text: str) -> None:
    print(text, file=sys.stderr, flush=True)


def minutes(seconds: float) -> str:
    return f"{int(seconds // 60)} min {seconds % 60:04.1f} s"


def run_limited(command: List[str], cwd: Path, log: Path, timeout: float,
                env: Optional[Dict[str, str]] = None) -> Tuple[Optional[int], str]:
    """Runs a command in a session of its own with its output in `log`. On timeout the whole session is killed
    and the status is None."""
    with open(log, "w", encoding="utf-8", errors="replace") as out:
        process = subprocess.Popen(command, cwd=cwd, stdout=out, stderr=subprocess.STDOUT, env=env,
                                   start_new_session=True)
        try:
            status: Optional[int] = process.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            status = None
        except BaseException:
            # Interrupted (Ctrl-C): the session does not get the terminal's signal, so it is ended here.
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
            raise
    return status, log.read_text(encoding="utf-8", errors="replace")


def tail(text: str, lines: int = 40) -> str:
    return "\n".join(text.rstrip("\n").split("\n")[-lines:])


def first_error(build_output: str) -> str:
    for line in build_output.split("\n"):
        if "error:" in line:
            return line.strip()
    return tail(build_output, 1).strip()


# ---- the scratch tree and its builds -------------------------------------------------------------------------

def tracked_files() -> List[str]:
    listed = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=ROOT, check=True,
                            stdout=subprocess.PIPE).stdout.decode("utf-8").split("\0")
    result = []
    for name in listed:
        if not name or name.split("/")[0] in ("build", "out", ".git"):
            continue
        if (ROOT / name).is_file():  # a tracked file deleted in the working tree is left out
            result.append(name)
    return result


def sync_tree(source: Path) -> int:
    """Makes the copy equal to the working tree. Only files whose bytes differ are written, and they get a new
    modification time, so the builds see exactly those as changed (also a file a killed run left mutated).
    Returns the number of files written or removed."""
    changed = 0
    wanted = set(tracked_files())
    for name in sorted(wanted):
        original = ROOT / name
        copy = source / name
        data = original.read_bytes()
        if not copy.is_file() or copy.read_bytes() != data:
            copy.parent.mkdir(parents=True, exist_ok=True)
            if copy.is_symlink() or copy.exists():
                copy.unlink()
            copy.write_bytes(data)
            changed += 1
        if (os.stat(original).st_mode & 0o777) != (os.stat(copy).st_mode & 0o777):
            shutil.copymode(original, copy)
    for directory, _, files in os.walk(source, topdown=False):
        for name in files:
            relative = os.path.relpath(os.path.join(directory, name), source)
            if relative not in wanted:
                os.unlink(os.path.join(directory, name))
                changed += 1
        if directory != str(source) and not os.listdir(directory):
            os.rmdir(directory)
    return changed


LIMIT_VARIABLE = "OLTB_MUTANT_TEST_SECONDS"


def write_limit_wrapper() -> Path:
    """The wrapper that runs one test program under `timeout`, which ends it (and the processes it started) after
    OLTB_MUTANT_TEST_SECONDS; the runner sets the limit for each ctest run."""
    wrapper = SCRATCH / "test-limit.sh"
    text = ("#!/bin/sh\n"
            "# Written by scripts/mutants.py: runs a test program with the time limit of the current mutant run.\n"
            f'exec timeout --kill-after=5 "${{{LIMIT_VARIABLE}:-60}}" "$@"\n')
    if not wrapper.exists() or read_text(wrapper) != text:
        write_text(wrapper, text)
    wrapper.chmod(0o755)
    return wrapper


def fastest_linker() -> Optional[str]:
    for linker, program in (("lld", "ld.lld"), ("gold", "ld.gold")):
        if shutil.which(program):
            return linker
    return None


@dataclass
class Build:
    """One scratch build with a source copy of its own, so that mutants of one build leave the other's objects
    alone."""
    kind: str
    source: Path
    directory: Path
    jobs: int
    test_limit: float = 60.0  # seconds per test program, calibrated by the unmutated run

    def configure(self, log: Path) -> None:
        generator = "Ninja" if shutil.which("ninja") else "Unix Makefiles"
        cache = self.directory / "CMakeCache.txt"
        if cache.exists():
            text = cache.read_text(errors="replace")
            if (f"CMAKE_GENERATOR:INTERNAL={generator}\n" not in text
                    or f"CMAKE_HOME_DIRECTORY:INTERNAL={self.source}\n" not in text):
                shutil.rmtree(self.directory)
        arguments = ["cmake", "-S", str(self.source), "-B", str(self.directory), "-G", generator,
                     "-DOLTB_BUILD_TESTS=ON", "-DOLTB_BUILD_TOOLS=ON", "-DOLTB_BUILD_BENCH=OFF",
                     "-DOLTB_BUILD_FUZZ=OFF"] + BUILD_KINDS[self.kind]
        linker = fastest_linker()
        if linker:
            for kind in ("EXE", "SHARED", "MODULE"):
                arguments.append(f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld={linker}")
        if shutil.which("ccache"):
            arguments += ["-DCMAKE_C_COMPILER_LAUNCHER=ccache", "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        # Every test whose command is one of the project's programs runs under the time-limit wrapper (CMake
        # prefixes test commands of built programs with this "emulator" whether or not it cross-compiles); ctest
        # itself still applies the test's own TIMEOUT.
        arguments.append(f"-DCMAKE_CROSSCOMPILING_EMULATOR={write_limit_wrapper()}")
        status, output = run_limited(arguments, ROOT, log, timeout=600)
        if status != 0:
            raise InfrastructureError(f"configuring the {self.kind} scratch build failed:\n{tail(output)}")

    def build(self, log: Path, timeout: float = 3600) -> Tuple[bool, str]:
        status, output = run_limited(["cmake", "--build", str(self.directory), "-j", str(self.jobs)], ROOT, log,
                                     timeout=timeout)
        return status == 0, output


class TestRunner:
    """Runs ctest in a scratch build, in a network namespace of its own when possible."""

    def __init__(self, jobs: int, mutant_timeout: float):
        self.jobs = jobs
        self.mutant_timeout = mutant_timeout
        self.isolated = self._namespace_works()

    @staticmethod
    def _namespace_works() -> bool:
        if not shutil.which("unshare") or not shutil.which("ip"):
            return False
        try:
            probe = subprocess.run(["unshare", "-n", "sh", "-c", "ip link set lo up"], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.DEVNULL, timeout=30)
        except (OSError, subprocess.TimeoutExpired):
            return False
        return probe.returncode == 0

    def _command(self, ctest: List[str]) -> List[str]:
        if not self.isolated:
            return ctest
        quoted = " ".join("'" + part.replace("'", "'\\''") + "'" for part in ctest)
        return ["unshare", "-n", "sh", "-c", "ip link set lo up && exec " + quoted]

    def run(self, build: Build, focus: Optional[str], log_stem: Path, stop_on_failure: bool = True
            ) -> Tuple[bool, str, str]:
        """Runs the focus tests, then (if they passed) the others. Returns (all passed, what failed, output)."""
        environment = dict(os.environ)
        environment.update(TEST_ENVIRONMENT[build.kind])
        environment[LIMIT_VARIABLE] = f"{build.test_limit:g}"
        deadline = time.monotonic() + self.mutant_timeout
        phases = [["-R", focus], ["-E", focus]] if focus else [[]]
        outputs = []
        for number, selection in enumerate(phases, 1):
            ctest = ["ctest", "-j", str(self.jobs), "--output-on-failure", "--no-tests=ignore", "-LE", "browser"]
            if stop_on_failure:
                ctest.append("--stop-on-failure")
            log = log_stem.with_name(f"{log_stem.name}.test{number}.log")
            left = deadline - time.monotonic()
            if left <= 0:
                return False, "the tests as a whole reached the limit of one mutant", "\n".join(outputs)
            status, output = run_limited(self._command(ctest + selection), build.directory, log, left, environment)
            outputs.append(output)
            if status is None:
                return False, ("the tests as a whole reached the limit of one mutant "
                               f"({self.mutant_timeout:g} s)"), "\n".join(outputs)
            if status != 0:
                return False, failed_tests(output, build.test_limit) or f"ctest exit status {status}", \
                    "\n".join(outputs)
        return True, "", "\n".join(outputs)


TEST_LINE = re.compile(r"Test\s+#\d+: (\S+) \.*\**\s*(\w[\w ]*?)\s+([0-9.]+) sec")


def test_seconds(ctest_output: str) -> Dict[str, float]:
    """The duration of each test that ran, from ctest's progress lines."""
    return {match.group(1): float(match.group(3)) for match in TEST_LINE.finditer(ctest_output)}


def failed_tests(ctest_output: str, limit: float = 0.0) -> str:
    """The names and kinds of failure from ctest's closing list, e.g. "oltb_events_test (Failed)"; a failure at
    the per-test time limit reads "(time limit)"."""
    durations = test_seconds(ctest_output)
    failures = []
    in_list = False
    for line in ctest_output.split("\n"):
        if line.startswith("The following tests FAILED:") or line.startswith("The following tests did not run:"):
            in_list = True
            continue
        if in_list:
            match = re.match(r"^\s+\d+ - (\S+) \((.+)\)", line)
            if match:
                kind = match.group(2)
                # The wrapper ends a test program at the limit and kills it 5 s later if it is still there.
                if kind == "Failed" and limit > 0 and limit - 0.5 <= durations.get(match.group(1), 0.0) <= limit + 6:
                    kind = "time limit"
                failures.append(f"{match.group(1)} ({kind})")
            elif line.strip():
                in_list = False
    return ", ".join(failures)


# ---- one run ----------------------------------------------------------------------------------------------------

@dataclass
class Outcome:
    mutant: Mutant
    status: str  # caught, survived, build-failed, stale
    detail: str = ""
    build_seconds: float = 0.0
    test_seconds: float = 0.0


class Runner:
    def __init__(self, arguments: argparse.Namespace):
        self.arguments = arguments
        self.logs = SCRATCH / "logs"
        self.tests = TestRunner(arguments.jobs, arguments.mutant_timeout)
        self.builds: Dict[str, Build] = {}

    def prepare(self, kind: str) -> Build:
        """Brings the build's source copy up to date, builds it unmutated and runs its whole suite once; both must
        pass."""
        source = SCRATCH / ("src" if kind == "release" else f"src-{kind}")
        build = Build(kind, source, SCRATCH / kind, self.arguments.jobs, float(self.arguments.test_timeout))
        changed = sync_tree(source)
        # The Python package finds the libraries of the tree it was installed from in its build/release.
        link = source / "build" / "release"
        if kind == "release" and not link.is_symlink():
            link.parent.mkdir(exist_ok=True)
            link.symlink_to(build.directory)
        progress(f"mutants: {kind}: source copy in {source} ({changed} files updated)")
        started = time.monotonic()
        progress(f"mutants: {kind}: configuring and building the unmutated build in {build.directory}")
        build.configure(self.logs / f"unmutated-{kind}.configure.log")
        built, output = build.build(self.logs / f"unmutated-{kind}.build.log")
        if not built:
            raise InfrastructureError(f"the unmutated {kind} build fails:\n{tail(output)}")
        progress(f"mutants: {kind}: built in {time.monotonic() - started:.0f} s; running the unmutated suite")
        started = time.monotonic()
        passed, failures, output = self.tests.run(build, None, self.logs / f"unmutated-{kind}",
                                                  stop_on_failure=False)
        if not passed:
            raise InfrastructureError(f"the unmutated suite fails in the {kind} build: {failures}\n"
                                      f"{tail(output, 60)}\n(logs in {self.logs})")
        slowest = max(test_seconds(output).values(), default=0.0)
        build.test_limit = min(float(self.arguments.test_timeout),
                               max(self.arguments.test_timeout_floor, self.arguments.test_timeout_factor * slowest))
        progress(f"mutants: {kind}: unmutated suite passed in {time.monotonic() - started:.0f} s; slowest test "
                 f"{slowest:.1f} s, so each test of a mutant may take {build.test_limit:.0f} s")
        return build

    def run_mutant(self, mutant: Mutant, build: Build) -> Outcome:
        path = build.source / mutant.file
        pristine = read_text(path)
        find, replace = mutant.fields["find"], mutant.fields["replace"]
        if pristine.count(find) != 1:
            return Outcome(mutant, "stale", f"find text occurs {pristine.count(find)} times")
        stem = self.logs / mutant.id
        try:
            write_text(path, pristine.replace(find, replace, 1))
            started = time.monotonic()
            built, output = build.build(stem.with_name(stem.name + ".build.log"), timeout=self.arguments.build_timeout)
            build_seconds = time.monotonic() - started
            if not built:
                return Outcome(mutant, "build-failed", first_error(output), build_seconds)
            started = time.monotonic()
            focus = mutant.fields.get("tests") or FOCUS_TESTS.get(mutant.folder)
            passed, failures, _ = self.tests.run(build, focus, stem)
            test_seconds = time.monotonic() - started
            if passed:
                return Outcome(mutant, "survived", "", build_seconds, test_seconds)
            return Outcome(mutant, "caught", failures, build_seconds, test_seconds)
        finally:
            # Always the pristine text again; its new time makes the next build recompile the file.
            write_text(path, pristine)

    def run(self, mutants: List[Mutant]) -> int:
        run_started = time.monotonic()
        SCRATCH.mkdir(parents=True, exist_ok=True)
        if self.logs.exists():
            shutil.rmtree(self.logs)
        self.logs.mkdir(parents=True)
        if not self.tests.isolated:
            progress("mutants: warning: no network namespace available; the tests share the loopback addresses "
                     "with any other test run on this machine")
        # Every build the selection needs is made and checked first: a broken one ends the run before any mutant.
        for kind in sorted({mutant.build for mutant in mutants}, key=lambda kind: kind != "release"):
            self.builds[kind] = self.prepare(kind)
        prepared = time.monotonic() - run_started

        # Grouped by build and file, so that a file is put back and recompiled once per group, not per mutant.
        order = sorted(mutants, key=lambda m: (m.build != "release", m.build, m.file))
        outcomes: Dict[str, Outcome] = {}
        for number, mutant in enumerate(order, 1):
            outcome = self.run_mutant(mutant, self.builds[mutant.build])
            outcomes[mutant.id] = outcome
            self.report_progress(number, len(order), outcome)
            if outcome.status in ("caught", "stale") and not self.arguments.keep:
                for log in self.logs.glob(mutant.id + ".*"):
                    log.unlink()
        return self.summarise(mutants, outcomes, prepared, time.monotonic() - run_started)

    @staticmethod
    def report_progress(number: int, total: int, outcome: Outcome) -> None:
        times = f"build {outcome.build_seconds:.1f} s, tests {outcome.test_seconds:.1f} s"
        text = {
            "caught": f"caught by {outcome.detail}",
            "survived": "SURVIVED",
            "build-failed": f"BUILD FAILED: {outcome.detail}",
            "stale": f"STALE: {outcome.detail}",
        }[outcome.status]
        progress(f"[{number}/{total}] {outcome.mutant.id} ({outcome.mutant.file}): {text} ({times})")

    def summarise(self, mutants: List[Mutant], outcomes: Dict[str, Outcome], prepared: float, seconds: float) -> int:
        with open(SCRATCH / "results.txt", "w", encoding="utf-8") as results:
            for mutant in mutants:
                outcome = outcomes[mutant.id]
                results.write(f"{mutant.id}\t{outcome.status}\t{mutant.file}\t{outcome.detail}\t"
                              f"{outcome.build_seconds:.1f}\t{outcome.test_seconds:.1f}\n")
        caught = measured = 0
        lines = []
        for mutant in mutants:  # in the order of the list
            outcome = outcomes[mutant.id]
            if outcome.status in ("caught", "survived"):
                measured += 1
            if outcome.status == "caught":
                caught += 1
                if "equivalent" in mutant.fields:
                    progress(f"mutants: note: {mutant.id} is marked equivalent but was caught by {outcome.detail}")
            elif outcome.status == "survived":
                if "equivalent" in mutant.fields:
                    lines.append(f"EQUIVALENT {mutant.id} {mutant.file}: {mutant.fields['equivalent']}")
                else:
                    lines.append(f"SURVIVED {mutant.id} {mutant.file}: {mutant.fields['why']}")
            elif outcome.status == "build-failed":
                lines.append(f"BUILD-FAILED {mutant.id} {mutant.file}: {outcome.detail} "
                             f"(a bad mutant; log: {self.logs / (mutant.id + '.build.log')})")
            else:
                lines.append(f"STALE {mutant.id} {mutant.file}: {outcome.detail}")
        progress(f"mutants: {minutes(seconds)} in all: {minutes(prepared)} for the unmutated builds and suites, "
                 f"{(seconds - prepared) / max(len(mutants), 1):.1f} s per mutant for {len(mutants)} mutants; "
                 f"details in {SCRATCH / 'results.txt'}")
        for line in lines:
            print(line)
        print(f"caught {caught} of {measured}", flush=True)
        return 0


# ---- command line -----------------------------------------------------------------------------------------------

def list_mutants(mutants: List[Mutant], problems: List[str]) -> int:
    """--list: every find text must occur exactly once; counts per folder."""
    for mutant in mutants:
        if "file" in mutant.fields and "find" in mutant.fields:
            count = occurrences(mutant, ROOT)
            if count != 1:
                problems.append(f"STALE {mutant.id} {mutant.file}: find text occurs {count} times")
    counts: Dict[str, int] = {}
    for mutant in mutants:
        counts[mutant.folder] = counts.get(mutant.folder, 0) + 1
    for folder in FOLDERS + ["other"]:
        if folder in counts:
            print(f"{folder:<16} {counts[folder]:3d}")
    builds = {}
    for mutant in mutants:
        builds[mutant.build] = builds.get(mutant.build, 0) + 1
    print(f"{'total':<16} {len(mutants):3d}  (" + ", ".join(f"{kind} build {count}" for kind, count
                                                          in sorted(builds.items())) + ")")
    equivalent = [mutant.id for mutant in mutants if "equivalent" in mutant.fields]
    if equivalent:
        print("marked equivalent: " + ", ".join(equivalent))
    for problem in problems:
        print(problem)
    return 1 if problems else 0


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0],
                                     epilog="See the top of scripts/mutants.py and scripts/mutants.txt.")
    parser.add_argument("--only", help="mutants to run: ids, globs or substrings of ids or file names, or a build "
                        "kind (release, tsan), comma-separated")
    parser.add_argument("--list", action="store_true", help="check the list (every find text exactly once) and "
                        "count the mutants per folder; builds nothing")
    parser.add_argument("--keep", action="store_true", help="keep the logs of every mutant in build/mutants/logs "
                        "(by default only those of survivors and build failures); the scratch builds are always kept")
    parser.add_argument("--fresh", action="store_true", help="remove build/mutants first and build from scratch")
    parser.add_argument("--jobs", type=int, default=2, help="parallel build jobs and tests (default 2)")
    parser.add_argument("--file", type=Path, default=DEFAULT_LIST, help="the list of mutants")
    parser.add_argument("--test-timeout", type=int, default=60,
                        help="longest run of one test program, seconds, if its own TIMEOUT is longer (default 60)")
    parser.add_argument("--test-timeout-factor", type=float, default=4.0,
                        help="a mutant's test program may take this many times as long as the slowest test of the "
                             "unmutated run (default 4), at least --test-timeout-floor and at most --test-timeout")
    parser.add_argument("--test-timeout-floor", type=float, default=15.0,
                        help="the shortest per-test limit, seconds (default 15)")
    parser.add_argument("--mutant-timeout", type=float, default=240,
                        help="longest run of all tests of one mutant, seconds (default 240)")
    parser.add_argument("--build-timeout", type=float, default=1200,
                        help="longest incremental build of one mutant, seconds (default 1200)")
    arguments = parser.parse_args()

    mutants, problems = parse_list(arguments.file)
    if arguments.list:
        return list_mutants(select(mutants, arguments.only), problems)
    if problems:
        for problem in problems:
            print(problem, file=sys.stderr)
        return 2
    selected = select(mutants, arguments.only)
    if not selected:
        print(f"mutants: no mutant matches --only {arguments.only}", file=sys.stderr)
        return 2
    if arguments.fresh and SCRATCH.exists():
        shutil.rmtree(SCRATCH)
    try:
        return Runner(arguments).run(selected)
    except InfrastructureError as error:
        print(f"mutants: {error}", file=sys.stderr)
        return 3
    except KeyboardInterrupt:
        print("mutants: interrupted; the mutated file is back to its own text", file=sys.stderr)
        return 130


if __name__ == "__main__":
    sys.exit(main())
