"""Routes of the switch in the kernel of a VRF's namespace: they come, change and go, and leave alone what is not theirs."""

import json
import subprocess

import labnet
from labnet import until, until_all_mirrored, until_mirrored

VIA_1, VIA_2 = "via 10.1.0.2 interface 301", "via 10.2.0.2 interface 302"


def test_added_replaced_and_withdrawn():
    system = labnet.start_system()
    blue, ctl = system.vrfs[0], system.switch.ctl

    ctl(*f"route add vrf 3 20.0.0.0/16 {VIA_1}".split())
    ctl(*f"route add vrf 3 20.0.9.9/32 {VIA_2} via 10.1.0.7 interface 301".split())
    until_all_mirrored(blue)
    assert {dst: (route["gateway"], route["dev"]) for dst, route in blue.mirrored().items()} == \
        {"20.0.0.0/16": ("10.1.0.2", "rt1"), "20.0.9.9": ("10.1.0.7", "rt1")}

    ctl(*f"route modify vrf 3 20.0.0.0/16 {VIA_2}".split())
    until_all_mirrored(blue)
    assert blue.mirrored()["20.0.0.0/16"]["dev"] == "rt2"

    ctl(*"route del vrf 3 20.0.0.0/16".split())
    ctl(*"route del vrf 3 20.0.9.9/32".split())
    until_all_mirrored(blue)
    assert blue.mirrored() == {}


def test_reject_and_default():
    system = labnet.start_system(script=[f"route add vrf 3 0.0.0.0/0 {VIA_1}", "route add vrf 3 30.0.0.0/8 reject",
                                         f"route add vrf 3 31.0.0.0/8 {VIA_1}"])
    blue, ctl = system.vrfs[0], system.switch.ctl
    until_all_mirrored(blue)
    assert blue.mirrored()["default"]["gateway"] == "10.1.0.2"
    assert blue.mirrored()["30.0.0.0/8"]["type"] == "unreachable"

    ctl(*f"route modify vrf 3 30.0.0.0/8 {VIA_2}".split())
    ctl(*"route modify vrf 3 31.0.0.0/8 reject".split())
    ctl(*"route modify vrf 3 0.0.0.0/0 reject".split())
    until_all_mirrored(blue)
    assert blue.mirrored()["30.0.0.0/8"]["gateway"] == "10.2.0.2"
    assert blue.mirrored()["31.0.0.0/8"]["type"] == "unreachable"
    assert blue.mirrored()["default"]["type"] == "unreachable"


def test_what_others_installed_survives():
    """Another program's route of the same prefix, and the kernel's connected route under a local route of the switch."""
    system = labnet.start_system()
    blue, ctl = system.vrfs[0], system.switch.ctl
    labnet.ip("route", "add", "40.0.0.0/8", "via", "10.1.0.9", "proto", "static", ns=blue.name)
    others = blue.routes("proto", "static") + blue.routes("proto", "kernel")
    assert len(others) == 3

    for command in (f"route add vrf 3 40.0.0.0/8 {VIA_2}", f"route modify vrf 3 40.0.0.0/8 {VIA_1}",
                    "route add vrf 3 10.1.0.0/24 local via 10.1.0.1 interface 301", "route del vrf 3 40.0.0.0/8",
                    "route del vrf 3 10.1.0.0/24"):
        ctl(*command.split())
        until_all_mirrored(blue)
        assert blue.routes("proto", "static") + blue.routes("proto", "kernel") == others, command


def test_vrfs_with_the_same_prefixes_stay_apart():
    """One prefix, two VRFs: each has its own way, and traffic of one never reaches a host of the other."""
    system = labnet.start_system(("blue", "red"))
    blue, red = system.vrfs
    ctl = system.switch.ctl
    ctl(*f"route add vrf 3 172.16.1.0/24 {VIA_1}".split())
    ctl(*"route add vrf 4 172.16.1.0/24 via 10.2.0.5 interface 402".split())
    until_all_mirrored(blue)
    until_all_mirrored(red)
    assert blue.mirrored()["172.16.1.0/24"]["dev"] == "rt1"
    assert red.mirrored()["172.16.1.0/24"]["gateway"] == "10.2.0.5"

    listen = ("import socket; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(('172.16.1.1', 7)); "
              "print('bound', flush=True); print(s.recv(99).decode(), flush=True)")
    listeners = [labnet.Process(f"listen-{vrf.name}", labnet.in_netns(vrf.host(1), "/usr/bin/python3", "-c", listen))
                 for vrf in (blue, red)]
    for listener in listeners:
        listener.start()
        until(lambda: "bound" in listener.said(), 10, "the host listens")
    send = "import socket; socket.socket(socket.AF_INET, socket.SOCK_DGRAM).sendto(b'from blue', ('172.16.1.1', 7))"
    labnet.run(*labnet.in_netns(blue.host(2), "/usr/bin/python3", "-c", send))
    until(lambda: "from blue" in listeners[0].said(), 10, "the datagram crosses VRF blue")
    assert "from blue" not in listeners[1].said()

    ctl(*"route del vrf 3 172.16.1.0/24".split())
    until_all_mirrored(blue)
    assert blue.mirrored() == {} and len(red.mirrored()) == 1


def test_many_routes_at_once():
    """More than one poll's budget fetches: 30,000 routes added, changed and withdrawn, while another VRF changes too."""
    system = labnet.start_system(("blue", "red"))
    blue, red = system.vrfs
    for what in (f"add vrf 3 50.0.0.0/28 count 30000 {VIA_1}", f"modify vrf 3 50.0.0.0/28 count 30000 {VIA_2}",
                 "add vrf 4 50.0.0.0/32 count 1000 via 10.1.0.2 interface 401", "del vrf 3 50.0.0.0/28 count 30000"):
        system.switch.ctl("routes", *what.split())
        until_all_mirrored(blue)
        until_all_mirrored(red)
    assert blue.mirrored() == {} and len(red.mirrored()) == 1000


def test_changes_survive_a_failing_fetch():
    """A refused fetch and one whose answer never comes: the changes come again with a keep-alive."""
    system = labnet.start_system(script=["keepalive period 1"])
    blue, ctl = system.vrfs[0], system.switch.ctl
    for number, fault in enumerate(("result -26 once", "drop once")):
        ctl("fault", "set", "tarnapiBestRouteChangeNextGetMult", *fault.split())
        ctl("routes", "add", "vrf", 3, f"60.{number}.0.0/24", "count", 120, *VIA_1.split())
        until_mirrored(blue)
        assert len(blue.mirrored()) == 120 * (number + 1)


def test_what_the_kernel_refuses_is_counted():
    """A gateway on a device that is not there: the rest of the batch is installed, and the operator can see the failure."""
    system = labnet.start_system(script=["interface add 399 vrf 3 name 1/3/99 device rt99"])
    blue = system.vrfs[0]
    system.switch.ctl("interface", "enable", 399)
    until(lambda: json.loads(system.switch.ctl("show", "events", "json")) == [], 10, "its routes have been fetched, none so far")
    system.switch.script_in([f"route add vrf 3 70.0.0.0/24 {VIA_1}", "route add vrf 3 70.0.1.0/24 via 10.1.0.2 interface 399",
                             f"route add vrf 3 70.0.2.0/24 {VIA_1}"])
    until(lambda: len(blue.mirrored()) == 2, 10, "the good routes are installed")
    assert labnet.differences(blue) == \
        "- vrf 3 interface 399 rt99 no such device\n- vrf 3 route 70.0.1.0/24 via 10.1.0.2 dev rt99\n"
    assert "Route Add Errors:          1 \n" in system.agents[0].sh("mirelStatsShow")
    assert subprocess.run(labnet.in_netns(blue.name, "ip", "link", "show", "rt99"), capture_output=True).returncode != 0
