"""What the stages of ./check are made of: steps with a log of their own, and the counting of tests.

A test that was skipped, disabled or could not be started counts as failed, and so does a build that breaks and a
stage that ran no test at all: silence must never look like success.
"""

import os
import pathlib
import subprocess
import sys
import time
import xml.etree.ElementTree as ElementTree
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
LOGS = ROOT / "build" / "check"
STEP_TIMEOUT = 900


@dataclass
class Tally:
    passed: int = 0
    failed: int = 0

    def __str__(self):
        return f"{self.passed} passed, {self.failed} failed"


def run(name, command, quiet=False, **environment):
    """Runs one step with its output in a log file, shown only when the step fails. A quiet one says nothing else either."""
    log = LOGS / f"{name}.log"
    started = time.monotonic()
    with log.open("wb") as out:
        try:
            status = subprocess.run(command, cwd=ROOT, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                    env={**os.environ, **environment}, timeout=STEP_TIMEOUT).returncode
        except subprocess.TimeoutExpired:
            status = 124
            out.write(f"\nended: longer than {STEP_TIMEOUT} s\n".encode())
    if status != 0 or not quiet:
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


def build(preset, prefix):
    return run(f"{preset}-configure", [*prefix, "cmake", "--preset", preset]) and \
        run(f"{preset}-build", [*prefix, "cmake", "--build", "--preset", preset])
