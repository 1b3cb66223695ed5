#!/usr/bin/python3
"""Builds the release and the sanitizer configurations and runs every test in each, replays and fuzzes the fuzz targets, then
counts the tests of all runners on one last line. With --all, more of each and the linters; with --coverage, the lines reached.
"""

import argparse
import os
import shutil
import subprocess
import sys
import time
from concurrent.futures import ThreadPoolExecutor

import coverage
import lint
from step import LOGS, ROOT, Tally, build, run, run_tests, unrandomised

TEST_TIMEOUT = 120
FUZZ_SEED = 1
FUZZ_SECONDS = 3  # a target
FUZZ_SECONDS_ALL = 60
SANITIZERS = ["asan-ubsan", "tsan"]
PATIENCE = "3"  # a program with sanitizers or counters takes up to so many times as long
# Of tests/system, what no sanitizer build runs, and what it runs only with --all.
UNSANITIZED = ["test_package.py",  # packages the release build
               "test_selftest.py::test_memory_limit"]  # limits the address space, of which a sanitizer needs all
SANITIZED_WITH_ALL = ["test_selftest.py",  # not the agent
                      "test_faults.py", "test_bench.py", "test_lab.py"]  # minutes, of what the others do in seconds
UNCOUNTED = ["test_package.py"]  # runs the programs with an environment of its own


def left_out(preset, everything):
    tests = UNCOUNTED if preset == coverage.PRESET else []
    if preset in SANITIZERS:
        tests = UNSANITIZED + ([] if everything else SANITIZED_WITH_ALL)
    return [f"--deselect=tests/system/{test}" for test in tests]


def test(preset, everything=False, **environment):
    """Every test of one configuration: ctest runs those in C++, pytest those of the whole system."""
    prefix = unrandomised() if preset == "tsan" else []
    if not build(preset, prefix):
        return Tally(failed=1)
    # A report of the thread sanitizer must end the process, or nobody looks at it. What some tests put in front of an agent's
    # libraries comes before those of the address sanitizer, and takes the place of nothing that it replaces.
    slow = preset in (*SANITIZERS, coverage.PRESET)
    environment |= {"TSAN_OPTIONS": "halt_on_error=1", "ASAN_OPTIONS": "verify_asan_link_order=0",
                    "MIREL_BIN": str(ROOT / "build" / preset / "bin"), "MIREL_PATIENCE": PATIENCE if slow else "1"}
    report = LOGS / f"{preset}-tests.xml"
    total = run_tests(f"{preset}-tests",
                      [*prefix, "ctest", "--test-dir", f"build/{preset}", "--output-on-failure",
                       "--timeout", str(TEST_TIMEOUT), "--output-junit", str(report)], report, **environment)
    report = LOGS / f"{preset}-system-tests.xml"
    system = run_tests(f"{preset}-system-tests",
                       [*prefix, "/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider", "-n", str(os.cpu_count()),
                        f"--junit-xml={report}", *left_out(preset, everything), "tests/system"], report, **environment)
    return Tally(total.passed + system.passed, total.failed + system.failed)


def fuzz_one(target, seconds):
    """Replays the target's corpus, then fuzzes it for some seconds, always the same way."""
    name = f"fuzz-{target}"
    found = LOGS / name
    shutil.rmtree(found, ignore_errors=True)
    (found / "units").mkdir(parents=True)
    words = ROOT / "fuzz" / f"{target}.dict"
    return run(name, [*unrandomised(), f"build/fuzz/bin/fuzz_{target}", f"-seed={FUZZ_SEED}", f"-max_total_time={seconds}",
                      "-timeout=10", f"-artifact_prefix={found}/", *([f"-dict={words}"] if words.exists() else []),
                      str(found / "units"), f"fuzz/corpus/{target}"])


def fuzz(seconds):
    """Each fuzz target counts as a test; one without a corpus, or a corpus without one, is a failed one."""
    if not build("fuzz", []):
        return Tally(failed=1)
    print(f"  seed {FUZZ_SEED}, {seconds} s a target", flush=True)
    built = {path.name.removeprefix("fuzz_") for path in (ROOT / "build/fuzz/bin").glob("fuzz_*")}
    targets = {path.name for path in (ROOT / "fuzz/corpus").iterdir()}
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        passed = sum(pool.map(lambda target: fuzz_one(target, seconds), sorted(targets & built)))
    return Tally(passed, len(targets | built) - passed)


def count_lines():
    tests = test(coverage.PRESET, **coverage.environment())
    found = coverage.report()
    return Tally(tests.passed + found.passed, tests.failed + found.failed)


def stages(options):
    if options.coverage:
        yield "coverage", count_lines
    if options.coverage and not options.all:
        return
    everything = options.all
    if everything:  # first what is soonest done
        yield "clang-tidy", lint.clang_tidy
        yield "cppcheck", lint.cppcheck
    for preset in ["release", *SANITIZERS] + (["clang"] if everything else []):
        yield preset, lambda preset=preset: test(preset, everything)
    yield "fuzz", lambda: fuzz(FUZZ_SECONDS_ALL if everything else FUZZ_SECONDS)


def main():
    parser = argparse.ArgumentParser(description="build and test everything")
    parser.add_argument("--all", action="store_true",
                        help="also the linters, the clang build, every system test under the sanitizers, and longer fuzzing")
    parser.add_argument("--coverage", action="store_true", help="instead, or with --all before: the lines that the tests reach")
    options = parser.parse_args()

    LOGS.mkdir(parents=True, exist_ok=True)
    total = Tally()
    results = []
    for stage, carry_out in stages(options):
        print(f"{stage}:", flush=True)
        started = time.monotonic()
        tally = carry_out()
        results.append(f"{stage:<12} {tally}  ({time.monotonic() - started:.0f} s)")
        total.passed += tally.passed
        total.failed += tally.failed

    print("\n" + "\n".join(results) + "\n")
    print(total)
    return 0 if total.failed == 0 and total.passed > 0 else 1


if __name__ == "__main__":
    sys.exit(main())
