"""Runs every system test in a sandbox of its own: see scripts/labnet.py. The test function runs in a child, its failure
comes back as text; fixtures stay with the parent, so tests take what they need from labnet instead."""

import os
import pathlib
import select
import signal
import sys
import time
import traceback

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import labnet  # noqa: E402

TEST_TIMEOUT = 60 * int(os.environ.get("MIREL_PATIENCE", 1))


def _in_child(function, arguments, report):
    try:
        function(**arguments)
        return 0
    except BaseException:
        text = traceback.format_exc()
        for log in sorted(pathlib.Path("/tmp").glob("*.log")):
            text += f"\n--- {log.name}, the end of it\n" + "\n".join(log.read_text(errors="replace").splitlines()[-40:])
        with os.fdopen(report, "w", errors="replace") as out:
            out.write(text)
        return 1


def _read_report(fd, deadline):
    """The child's report, None when it did not end in time."""
    chunks = []
    while True:
        ready, _, _ = select.select([fd], [], [], max(0, deadline - time.monotonic()))
        if not ready:
            return None
        chunk = os.read(fd, 65536)
        if not chunk:
            return b"".join(chunks).decode(errors="replace")
        chunks.append(chunk)


@pytest.hookimpl(tryfirst=True)
def pytest_pyfunc_call(pyfuncitem):
    arguments = {name: pyfuncitem.funcargs[name] for name in pyfuncitem._fixtureinfo.argnames}
    reading, writing = os.pipe()
    sandbox = labnet.start_sandbox(lambda: _in_child(pyfuncitem.obj, arguments, writing))
    os.close(writing)
    report = None
    try:
        report = _read_report(reading, time.monotonic() + TEST_TIMEOUT)
    finally:
        os.close(reading)
        if report is None:
            os.kill(sandbox, signal.SIGKILL)
        status = os.waitstatus_to_exitcode(os.waitpid(sandbox, 0)[1])
    if report is None:
        pytest.fail(f"not done within {TEST_TIMEOUT} s", pytrace=False)
    if report or status != 0:
        pytest.fail(report or f"the sandbox ended with status {status}", pytrace=False)
    return True
