"""Agents and switch that die and come back: whatever changed meanwhile, the kernel is a mirror again afterwards."""

import itertools
import pathlib
import signal

import labnet
from labnet import until, until_mirrored

VIA_1, VIA_2 = "via 10.1.0.2 interface 301", "via 10.2.0.2 interface 302"
RESTART_FLAG = pathlib.Path("/run/qvproc/syncdb/Mirel Restart State-3")
RESTART_LOG = "Mirel process restarted."


def test_agent_killed_and_started_again():
    """What the first agent left is gone, also what no link flap reaches: a route without a device, and one through a device
    without "rt" in its name."""
    system = labnet.start_system(script=[f"routes add vrf 3 20.0.0.0/24 count 100 {VIA_1}", "route add vrf 3 30.0.0.0/8 reject"])
    blue, agent = system.vrfs[0], system.agents[0]
    until_mirrored(blue)
    assert RESTART_FLAG.read_bytes() == b"\1"
    assert RESTART_LOG not in agent.said()

    agent.kill(signal.SIGKILL)
    labnet.ip_batch(["link add other type bridge", "link set other up", "route add 90.0.0.0/8 dev other proto 25",
                     "route add 91.0.0.0/8 via 10.2.0.3 proto static"], ns=blue.name)
    system.switch.ctl(*"routes del vrf 3 20.0.0.0/24 count 50".split())
    system.switch.ctl(*f"route add vrf 3 40.0.0.0/8 {VIA_1}".split())
    system.switch.ctl(*f"route modify vrf 3 30.0.0.0/8 {VIA_2}".split())

    agent.start()
    agent.quick()
    until_mirrored(blue)
    assert len(blue.mirrored()) == 52
    assert RESTART_LOG in agent.said()
    assert RESTART_FLAG.read_bytes() == b"\1"


def test_switch_killed_and_started_again():
    system = labnet.start_system(script=[f"routes add vrf 3 20.0.0.0/24 count 100 {VIA_1}"])
    blue, switch, agent = system.vrfs[0], system.switch, system.agents[0]
    until_mirrored(blue)
    switch.ctl(*f"route add vrf 3 40.0.0.0/8 {VIA_2}".split())
    switch.kill(signal.SIGKILL)
    switch.start()
    switch.ctl(*f"route add vrf 3 41.0.0.0/8 {VIA_2}".split())
    switch.ctl(*"route del vrf 3 20.0.0.0/24".split())
    until_mirrored(blue)
    assert len(blue.mirrored()) == 101 and "40.0.0.0/8" in blue.mirrored()
    assert agent.running()


def test_agent_started_before_the_switch():
    """It waits, as long as it takes, and goes on by itself when the switch appears."""
    vrf = labnet.make_vrf(3, "blue")
    agent = labnet.Agent(vrf)
    agent.start()
    agent.quick()
    switch = labnet.Switch([*labnet.vrf_script(vrf), f"route add vrf 3 20.0.0.0/8 {VIA_1}", "vrf set 3 routing on"])
    switch.start()
    labnet.until_all_mirrored(vrf)
    assert "20.0.0.0/8" in vrf.mirrored()


def flags_by_device(monitor):
    """Device -> whether it was up, for each announcement in order."""
    seen = {}
    for line in monitor.said().splitlines():
        words = line.split()
        if len(words) > 2 and words[2].startswith("<"):
            device = words[1].rstrip(":").split("@")[0]
            seen.setdefault(device, []).append("UP" in words[2].strip("<>").split(","))
    return seen


def test_flush_flaps_only_router_links_that_are_up():
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    system.switch.ctl("interface", "disable", 302)
    labnet.ip_batch(["link add other type bridge", "link set other up", "link add mark type bridge"], ns=blue.name)
    until_mirrored(blue)
    agent.kill(signal.SIGKILL)

    monitor = labnet.Process("monitor", labnet.in_netns(blue.name, "stdbuf", "-oL", "ip", "-o", "monitor", "link"))
    monitor.start()
    turns = itertools.cycle(("up", "down"))

    def announced():
        labnet.ip("link", "set", "mark", next(turns), ns=blue.name)
        return "mark" in flags_by_device(monitor)

    until(announced, 10, "the monitor listens")
    agent.start()
    until(lambda: len(flags_by_device(monitor).get("rt1", [])) >= 2, 10, "rt1 is flapped")
    labnet.ip("link", "add", "end", "type", "bridge", ns=blue.name)
    until(lambda: "end" in flags_by_device(monitor), 10, "the monitor has seen everything")

    seen = flags_by_device(monitor)
    assert False in seen["rt1"] and seen["rt1"][-1]
    assert "rt2" not in seen and "other" not in seen
    assert "UP" in labnet.ip_json("link", "show", "dev", "rt1", ns=blue.name)[0]["flags"]
    assert "UP" not in labnet.ip_json("link", "show", "dev", "rt2", ns=blue.name)[0]["flags"]
