"""The lab as people run it: once, and live until Ctrl-C."""

import os
import signal
import subprocess

import labnet
from labnet import until

LAB = ["/usr/bin/python3", str(labnet.ROOT / "scripts" / "lab.py")]


def processes():
    return {int(name) for name in os.listdir("/proc") if name.isdigit()}


def test_once():
    done = subprocess.run([*LAB, "--once"], capture_output=True, text=True, timeout=55)
    assert done.returncode == 0, done.stdout + done.stderr
    assert "VRF 3 blue" in done.stdout and "VRF 7 red" in done.stdout
    assert done.stdout.count("64 bytes from 172.16.2.1") == 2
    assert done.stdout.splitlines()[-1].startswith("both kernels mirror the switch")


def test_live_until_interrupted():
    before = processes()
    lab = labnet.Process("lab", LAB)
    lab.start()
    until(lambda: "vrf 3 blue routes: switch" in lab.said(), 30, lambda: f"the lab shows its counts:\n{lab.said()}")
    inside = [*LAB, "exec"]
    second = subprocess.run(LAB, capture_output=True, text=True, timeout=20)
    assert second.returncode != 0 and "already running" in second.stderr

    labnet.run(*inside, "orrinctl", *"route add vrf 7 60.0.0.0/24 via 10.1.0.2 interface 701".split())
    until(lambda: labnet.run(*inside, "ip", "-n", "red", "route", "show", "60.0.0.0/24"), 10, "the route is in the kernel")
    lab.kill(signal.SIGINT)
    assert lab.child.returncode == 0
    assert processes() <= before
    assert subprocess.run(inside + ["true"], capture_output=True).returncode != 0
