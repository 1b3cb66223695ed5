#!/usr/bin/python3
"""Builds the release and the sanitizer configurations and runs every test in each, replays and fuzzes the fuzz targets, then
counts the tests of all runners on one last line.

A test that was skipped, disabled or could not be started counts as failed, and so does a build that breaks and a
stage that ran no test at all: silence must never look like success.
"""

import argparse
import os
import pathlib
import shutil
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
LOGS = ROOT / "build" / "check"
STEP_TIMEOUT = 900
TEST_TIMEOUT = 120
FUZZ_SEED = 1
FUZZ_SECONDS = 3  # a target
FUZZ_SECONDS_ALL = 60
SANITIZERS = ["asan-ubsan", "tsan"]
UNSANITIZED = ["tests/system/test_selftest.py",  # limits its address space, of which a sanitizer needs all
               "tests/system/test_faults.py",  # the same
               "tests/system/test_bench.py",  # measures
               "tests/system/test_lab.py",  # looks at the same as the other tests
               "tests/system/test_package.py"]  # packages what was built


@dataclass
class Tally:
    passed: int = 0
    failed: int = 0

    def __str__(self):
        return f"{self.passed} passed, {self.failed} failed"


def run(name, command, **environment):
    """Runs one step with its output in a log file, shown only when the step fails."""
    log = LOGS / f"{name}.log"
    started = time.monotonic()
    with log.open("wb") as out:
        try:
            status = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                    env={**os.environ, **environment}, timeout=STEP_TIMEOUT).returncode
        except subprocess.TimeoutExpired:
            status = 124
            out.write(f"\nended: longer than {STEP_TIMEOUT} s\n".encode())
    print(f"  {name:<20} {'ok' if status == 0 else 'FAILED'}  {time.monotonic() - started:.0f} s", flush=True)
    if status != 0:
        sys.stdout.write(log.read_text(errors="replace"))
        sys.stdout.flush()
    return status == 0


def count(report):
    tally = Tally()
    if not report.exists():
        return tally
    for case in ElementTree.parse(report).iter("testcase"):
        marks = {child.tag for child in case}
        good = case.get("status", "run") == "run" and not marks & {"failure", "error", "skipped"}
        if good:
            tally.passed += 1
        else:
            tally.failed += 1
    return tally


def run_tests(name, command, report, **environment):
    report.unlink(missing_ok=True)
    good = run(name, command, **environment)
    tally = count(report)
    if tally.failed == 0 and (not good or tally.passed == 0):
        print(f"  {name}: no test ran" if good else f"  {name}: the runner itself failed")
        tally.failed = 1
    return tally


def unrandomised():
    """The thread sanitizer of older compilers does not bear the address randomisation of newer kernels."""
    prefix = ["setarch", "-R"]
    works = subprocess.run(prefix + ["true"], capture_output=True).returncode == 0
    return prefix if works else []


def unsanitized(preset):
    return [f"--ignore={test}" for test in UNSANITIZED if preset in SANITIZERS]


def build(preset, prefix):
    return run(f"{preset}-configure", [*prefix, "cmake", "--preset", preset]) and \
        run(f"{preset}-build", [*prefix, "cmake", "--build", "--preset", preset])


def test(preset):
    """Every test of one configuration: ctest runs those in C++, pytest those of the whole system."""
    prefix = unrandomised() if preset == "tsan" else []
    if not build(preset, prefix):
        return Tally(failed=1)
    # A report of the thread sanitizer must end the process, or nobody looks at it.
    environment = {"TSAN_OPTIONS": "halt_on_error=1", "MIREL_BIN": str(ROOT / "build" / preset / "bin")}
    report = LOGS / f"{preset}-tests.xml"
    total = run_tests(f"{preset}-tests",
                      [*prefix, "ctest", "--test-dir", f"build/{preset}", "--output-on-failure",
                       "--timeout", str(TEST_TIMEOUT), "--output-junit", str(report)], report, **environment)
    report = LOGS / f"{preset}-system-tests.xml"
    system = run_tests(f"{preset}-system-tests",
                       [*prefix, "/usr/bin/python3", "-m", "pytest", "-q", "-p", "no:cacheprovider", "-n", str(os.cpu_count()),
                        f"--junit-xml={report}", *unsanitized(preset), "tests/system"], report, **environment)
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


def stages(everything):
    for preset in ["release", *SANITIZERS] + (["clang"] if everything else []):
        yield preset, lambda preset=preset: test(preset)
    yield "fuzz", lambda: fuzz(FUZZ_SECONDS_ALL if everything else FUZZ_SECONDS)


def main():
    parser = argparse.ArgumentParser(description="build and test everything")
    parser.add_argument("--all", action="store_true", help="also build and test with clang, and fuzz for longer")
    options = parser.parse_args()

    LOGS.mkdir(parents=True, exist_ok=True)
    total = Tally()
    results = []
    for stage, carry_out in stages(options.all):
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
