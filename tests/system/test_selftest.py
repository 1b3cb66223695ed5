"""The self-test application: what each of its tests prints, logs and leaves behind. Those that take a minute to show
anything are looked at only for their processes; the watchdog itself is tested with the library."""

import os
import pathlib
import re
import resource
import subprocess

import labnet
from labnet import until

FLAGS = pathlib.Path("/tmp/debug-flags")
LOGS = pathlib.Path("/tmp/logs")
MISSING = "Did not find /tmp/debug-flags/PROCTEST file.\n"
BLOCK = 102400


def announced(number):
    return f"Test Application Process is Running. PROCTEST={number}\n"


def flags_set(**flags):
    FLAGS.mkdir(exist_ok=True)
    for name, text in flags.items():
        (FLAGS / name).write_text(str(text))


class SelfTest:
    """A running test_app, with its output in two files."""

    started = 0

    def __init__(self, number, before=None, **flags):
        flags_set(**({} if number is None else {"PROCTEST": number}), **flags)
        SelfTest.started += 1
        self.out, self.log = (pathlib.Path(f"/tmp/test_app-{SelfTest.started}.{kind}") for kind in ("out", "log"))
        with self.out.open("wb") as out, self.log.open("wb") as log:
            self.process = subprocess.Popen([labnet.BIN / "test_app"], stdin=subprocess.DEVNULL, stdout=out, stderr=log,
                                            start_new_session=True, preexec_fn=before)

    @property
    def pid(self):
        return self.process.pid

    def until_printed(self, text):
        until(lambda: self.out.read_text() == text, 10, lambda: f"{text!r}, but it printed {self.out.read_text()!r}")

    def until_logged(self, pattern):
        until(lambda: re.fullmatch(pattern, self.log.read_text()), 10, lambda: f"{pattern}, but it logged {self.log.read_text()}")

    def idles(self):
        """Asleep, and alone but for the children that it has not waited for."""
        return self.process.poll() is None and stat(self.pid)["state"] == "S"

    def children(self):
        """The states of its children, in the order of their forks: S asleep, Z ended."""
        return [process["state"] for _, process in sorted(processes().items()) if process["parent"] == self.pid]

    def until_children(self, states):
        until(lambda: self.children() == states, 10, lambda: f"children {states}, but they are {self.children()}")


def stat(pid):
    """A process as /proc/PID/stat shows it."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return {"state": fields[0], "parent": int(fields[1]), "group": int(fields[2]), "status": int(fields[49])}


def processes():
    return {int(entry.name): stat(entry.name) for entry in pathlib.Path("/proc").iterdir() if entry.name.isdigit()}


def test_numbers_without_a_test():
    for flag, number, said in ((None, 0, MISSING), ("0", 0, MISSING), ("", 0, MISSING), ("many", 0, MISSING),
                               ("11", 11, "Unsupported test.\n"), ("-1", -1, "Unsupported test.\n"),
                               (str(2**32 + 2), 2, "Unsupported test.\n"),  # %d shows the low 32 bits
                               ("0" * 79 + "11", 0, MISSING)):  # only the first 79 bytes are read
        test = SelfTest(flag)
        test.until_printed(announced(number) + said)
        until(test.idles, 10, "it idles")
        assert test.children() == [] and test.log.read_text() == ""


def test_child_and_daemon():
    """1: a child, and one whose forked child is left to process 1. The one in between has tracked its memory to its end."""
    test = SelfTest(1)
    until(lambda: test.out.read_text().count("\n") == 3, 10, "three lines")
    first, *lines = test.out.read_text().splitlines(keepends=True)
    assert first == announced(1)
    test.until_children(["S", "Z"])
    pids = [pid for pid, process in sorted(processes().items()) if process["group"] == test.pid]
    parent, child, between, daemon = pids
    assert parent == test.pid and test.idles()
    assert sorted(lines) == [f"[{parent}]:[{child}] - Test Child Proc\n", f"[{parent}]:[{daemon}] - Daemonized Test Child Proc\n"]
    assert (stat(daemon)["parent"], stat(daemon)["state"], stat(between)["status"]) == (1, "S", 0)
    test.until_logged(rf".* info 0 platform/process/memtrack:\d+: process {between}: memory tracking: .*\n")


def test_log_files():
    """2: 900 and 300 records a pass, after what is there already, and again."""
    LOGS.mkdir()
    (LOGS / "test2.log").write_bytes(b"older")
    test = SelfTest(2)
    records = [f"Test Log Entry {i}\n".encode().ljust(80, b"\0") for i in range(300)]
    first = b"".join(3 * record for record in records)
    second = b"".join(records)
    until(lambda: (LOGS / "test2.log").exists() and (LOGS / "test2.log").stat().st_size > 5 + len(second), 10, "a second pass")
    test.process.kill()
    test.process.wait()
    for name, before, one_pass in (("test1.log", b"", first), ("test2.log", b"older", second)):
        written = (LOGS / name).read_bytes()
        assert len(one_pass) < len(written) and (before + 10 * one_pass).startswith(written), name
    assert (test.out.read_text(), test.log.read_text()) == (announced(2), "")


def test_log_files_that_cannot_be_opened():
    """2: no folder, then a folder in the place of the second file."""
    test = SelfTest(2)
    test.until_logged("open - fd1: No such file or directory\n")
    until(test.idles, 10, "it idles")

    (LOGS / "test2.log").mkdir(parents=True)
    test = SelfTest(2)
    test.until_logged("open - fd2: Is a directory\n")
    until(test.idles, 10, "it idles")
    assert (LOGS / "test1.log").read_bytes() == b""
    assert len(list(pathlib.Path(f"/proc/{test.pid}/fd").iterdir())) == 3


def test_log_count():
    """3: messages 0 to N. Without a number, or without a standard input, they never end."""
    test = SelfTest(3, PROC_SYSLOG_COUNT=2)
    test.until_printed(announced(3) + "Runinng SYSLOG test. PROC_SYSLOG_COUNT=2\n")
    message = r".{24} warning 0 process/proc_apps/proctest/test_app:\d+: Test Message:%d\n"
    test.until_logged("".join(message % i for i in range(3)))
    until(test.idles, 10, "it idles")

    for without, prepare in (("a number", lambda: None), ("a standard input", lambda: os.close(0))):
        if without == "a number":
            (FLAGS / "PROC_SYSLOG_COUNT").unlink()
        else:
            flags_set(PROC_SYSLOG_COUNT=2)
        endless = subprocess.Popen([labnet.BIN / "test_app"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True, preexec_fn=prepare)
        try:
            for i in range(2000):
                assert endless.stderr.readline().endswith(f" Test Message:{i}\n"), without
        finally:
            endless.kill()
        assert endless.communicate()[0] == announced(3) + "Runinng SYSLOG test. PROC_SYSLOG_COUNT=0\n"


def test_memory_tracking():
    """5: six blocks, three results of realloc, two children, and nothing said twice."""
    test = SelfTest(5)
    test.until_children(["S", "S"])
    until(test.idles, 10, "it idles")
    shown = re.fullmatch(announced(5).replace(".", r"\.") + r"Memtrack Test\.\n" + " ".join(f"p{i}:(0x[0-9a-f]+)" for i in range(1, 7))
                         + r"\nr1:(0x[0-9a-f]+) r2:(0x[0-9a-f]+) r3:\(nil\)\n", test.out.read_text())
    assert shown, test.out.read_text()
    blocks = [int(text, 16) for text in shown.groups()]
    assert len(set(blocks[:6])) == 6 and blocks[4] % os.sysconf("SC_PAGE_SIZE") == 0


def heap_bytes(pid):
    return 1024 * int(re.search(r"^VmData:\s+(\d+) kB$", pathlib.Path(f"/proc/{pid}/status").read_text(), re.MULTILINE)[1])


def totals(first, last):
    return "".join(f"Allocated {total} bytes\n" for total in range(first, last + 1, BLOCK))


def test_memory_limit():
    """6: blocks until they are more than the budget, or until there are no more. Then all are given back."""
    header = announced(6) + "Runinng SETRLIMIT test. PROC_MAX_MEM={}, rlim_max={}, rlim_cur={}\n"
    unlimited = 2 ** 64 - 1
    for budget, last in ((2 * BLOCK, 2 * BLOCK), (1, 0), (500 * BLOCK + 1, 500 * BLOCK)):
        test = SelfTest(6, PROC_MAX_MEM=budget)
        test.until_printed(header.format(budget, unlimited, unlimited) + totals(0, last))
        until(lambda: test.idles() and heap_bytes(test.pid) < 20 * BLOCK, 10, "the blocks are given back")

    soft, hard = 64 << 20, 65 << 20
    test = SelfTest(6, PROC_MAX_MEM=0, before=lambda: resource.setrlimit(resource.RLIMIT_AS, (soft, hard)))
    until(lambda: test.out.read_text().endswith("bytes\nOut of Memory.\n"), 10, "it is out of memory")
    blocks = test.out.read_text().count("Allocated")
    assert soft // BLOCK * 3 // 4 < blocks <= soft // BLOCK
    assert test.out.read_text() == header.format(0, hard, soft) + totals(0, (blocks - 1) * BLOCK) + "Out of Memory.\n"
    until(lambda: test.idles() and heap_bytes(test.pid) < 20 * BLOCK, 10, "the blocks are given back")


def test_hang_watchdog():
    """7: three children live with their watchdogs, the fourth goes away with its own."""
    test = SelfTest(7)
    test.until_children(["S", "S", "S", "Z"])
    gone = max(pid for pid, process in processes().items() if process["parent"] == test.pid)
    assert stat(gone)["status"] == 0 and test.idles()
    assert (test.out.read_text(), test.log.read_text()) == (announced(7) + "Process Hang Watchdog Test\n", "")


LIBRARY_CHECKS = """\
Testing osapiSnprintf()....OK
Testing osapiStrncpy()....OK
Testing osapiStrncpySafe()...""" + 99 * "z" + """
...OK
Testing osapiStrncat()....OK

Testing osapiSemaMCreate()...OK
Testing osapiSemaTake(mutex, QV_WAIT_FOREVER)...OK
Testing osapiSemaTake(mutex-recursive, QV_NO_WAIT)...OK
Testing osapiSemaGive(mutex-recursive)...OK
Testing osapiSemaGive(mutex)...OK
Testing osapiSemaGive(mutex-already-given)...OK
Testing osapiSemaDelete(mutex)...OK

Testing osapiSemaCCreate(0, count-2)...OK
Testing osapiSemaTake(sema-count-1, QV_WAIT_FOREVER)...OK
Testing osapiSemaTake(sema-count-2, QV_WAIT_FOREVER)...OK
Testing osapiSemaTake(sema-count-3, QV_NO_WAIT)...OK
Testing osapiSemaGive(sema-count-1)...OK
Testing osapiSemaGive(sema-count-2)...OK
Testing osapiSemaGive(sema-count-3)...OK
Testing osapiSemaDelete(sema)...OK

Testing OSAPI Queues...
Testing osapiMsgQueueCreate('',queue-size-3,msg-size-4)...OK
Testing osapiMessageSend(q1,1,4,QV_WAIT_FOREVER,0)...OK
Testing osapiMessageSend(q1,2,4,QV_WAIT_FOREVER,0)...OK
Testing osapiMessageSend(q1,3,4,QV_WAIT_FOREVER,0)...OK
Testing osapiMessageSend(q1,4,4,QV_NO_WAIT,0)...OK
Testing osapiMessageReceive(q1,1,4,QV_WAIT_FOREVER)...OK
Testing osapiMsgQueueLimitGet(q1,3)...OK
Testing osapiMsgQueueGetNumMsgs(q1,2)...OK
Testing osapiMessageSend(q1,4,4,QV_NO_WAIT,0)...OK
Testing osapiMessagePeek(q1,2,4,0)...OK
Testing osapiMessagePeek(q1,3,4,1)...OK
Testing osapiMessagePeek(q1,4,4,2)...OK
Testing osapiMessagePeek(q1,5,4,3)...OK
Testing osapiMessageReceive(q1,2,4,QV_WAIT_FOREVER)...OK
Testing osapiMessageReceive(q1,3,4,QV_WAIT_FOREVER)...OK
Testing osapiMessageReceive(q1,4,4,QV_WAIT_FOREVER)...OK
Testing osapiMessageReceive(q1,5,4,QV_NO_WAIT)...OK
Testing osapiMsgQueueDelete()...OK
"""


def test_library_checks():
    """10: every check is good, and the sleep is as long as it says."""
    test = SelfTest(10)
    clock = (r"Testing osapiUpTimeRaw\(\)\.\.\.(\d+) \(seconds since boot\)\n"
             r"Testing osapiUpTimeMillisecondsGet\(\)\.\.\.(-?\d+) \(milliseconds since boot\)\n"
             r"Testing osapiSleepMSec\(1500\)\.\.\.(-?\d+) \(milliseconds since boot\)\n")
    pattern = re.escape(announced(10) + LIBRARY_CHECKS) + clock
    shown = until(lambda: re.fullmatch(pattern, test.out.read_text()), 10, lambda: test.out.read_text())
    seconds, before, after = map(int, shown.groups())
    assert 1500 <= (after - before) % 2 ** 32 < 4500
    assert abs(seconds - float(pathlib.Path("/proc/uptime").read_text().split()[0])) < 15
    until(test.idles, 10, "it idles")
