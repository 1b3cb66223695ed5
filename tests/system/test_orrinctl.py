"""orrinctl by itself: commands and answers over the control socket, against a stand-in that says what the test wants,
and `orrinctl diff` against routes that the test puts into a real kernel."""

import contextlib
import pathlib
import socket
import threading

import pytest

import labnet
from labnet import orrinctl

DUMP = """\
system ready
keepalive period 30
vrf add 3 blue interface blue netns blue
vrf set 3 routing on
interface add 301 vrf 3 name 1/3/1 device rt1
interface enable 301
interface add 302 vrf 3 name 1/3/2 device rt2
interface enable 302
interface add 303 vrf 3 name tunnel device none type 5
"""


@contextlib.contextmanager
def stand_in(answer):
    """A control socket that gives back answer(command): bytes as they are, text as an accepted command's."""
    pathlib.Path("/run/orrin").mkdir(exist_ok=True)
    listener = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    listener.bind("/run/orrin/api.control")
    listener.listen()
    heard = []

    def serve():
        while True:
            try:
                peer, _ = listener.accept()
            except OSError:
                return
            with peer, peer.makefile("r") as commands:
                for command in commands:
                    heard.append(command.rstrip("\n"))
                    reply = answer(heard[-1])
                    if reply is None:
                        break
                    peer.sendall(reply if isinstance(reply, bytes) else f"0 {len(reply)}\n{reply}".encode())

    threading.Thread(target=serve, daemon=True).start()
    try:
        yield heard
    finally:
        listener.close()
        pathlib.Path("/run/orrin/api.control").unlink()


def test_one_command_from_the_arguments():
    with stand_in(lambda command: b"1 7\nno such" if "vrf 9" in command else "a\nb\n") as heard:
        good = orrinctl("show", "routes", "vrf", 3)
        refused = orrinctl("show", "routes", "vrf", 9)
        two_lines = orrinctl("show vrfs\nvrf del 3")
    assert (good.returncode, good.stdout, good.stderr) == (0, "a\nb\n", "")
    assert (refused.returncode, refused.stdout, refused.stderr) == (1, "", "orrinctl: no such\n")
    assert two_lines.returncode == 1
    assert heard == ["show routes vrf 3", "show routes vrf 9"]


def test_commands_from_standard_input():
    script = "# a comment\n\n  vrf add 1 one\nbad\nshow vrfs # and why\nno line end"
    with stand_in(lambda command: b"1 5\nwhat?" if command == "bad" else f"<{command.split()[0]}>") as heard:
        done = orrinctl("-", input=script)
        piped = orrinctl(input="show vrfs\n")
    assert heard == ["  vrf add 1 one", "bad", "show vrfs # and why", "no line end", "show vrfs"]
    assert done.returncode == 1
    assert done.stdout == "<vrf>\n<show>\n<no>\n"
    assert done.stderr == "orrinctl: line 4: what?\n"
    assert (piped.returncode, piped.stdout) == (0, "<show>\n")


def test_long_script_with_long_answers_does_not_lock_up():
    with stand_in(lambda command: command * 20) as heard:
        done = orrinctl("-", input="".join(f"route add vrf 3 10.0.0.0/8 metric {n}\n" for n in range(20000)))
    assert done.returncode == 0
    assert len(heard) == 20000
    assert done.stdout.endswith("metric 19999\n")


@pytest.mark.parametrize("reply", [None, b"2 0\n", b"0 x\n", b"0 -1\n", b"\n", b"0" * 200, b"0 50\nless"])
def test_orrin_that_answers_nonsense(reply):
    """None: hangs up. The last one promises more than it sends, then hangs up at the second command."""
    replies = iter([reply, None])
    with stand_in(lambda command: next(replies)):
        done = orrinctl("-", input="show vrfs\nshow vrfs\n")
    assert done.returncode == 1
    assert done.stdout == ""
    assert done.stderr.startswith("orrinctl: orrin")


def test_orrin_that_is_not_there():
    assert orrinctl("show", "vrfs").stderr == \
        "orrinctl: cannot reach orrin at /run/orrin/api.control: No such file or directory\n"
    assert orrinctl("show", "vrfs").returncode == 1
    assert orrinctl("diff").returncode == 2
    assert orrinctl("stats", "vrf", 3).stderr == "orrinctl: the agent of VRF 3 is not there\n"
    assert orrinctl(*"arp add vrf 3 10.1.1.9 mac ff:ff:ff:ff:ff:ff interface 11".split()).stderr == \
        "orrinctl: mac: \"ff:ff:ff:ff:ff:ff\" is no unicast MAC address\n"
    assert "vrf add <id>" in orrinctl("help").stdout


# Each: what the switch holds, what the kernel holds, what diff prints. {} is the prefix.
KINDS = {
    "gateway": ("via 10.1.0.2 interface 301", "{} via 10.1.0.2", ""),
    "lowest next hop": ("via 10.2.0.4 interface 302 via 10.1.0.3 interface 301", "{} via 10.1.0.3", ""),
    "lowest is unsigned": ("via 200.0.0.1 interface 302 via 10.1.0.3 interface 301", "{} via 10.1.0.3", ""),
    "first among equals": ("via 10.1.0.3 interface 301 via 10.1.0.3 interface 302", "{} via 10.1.0.3 dev rt1", ""),
    "device alone": ("via 0.0.0.0 interface 302", "{} dev rt2", ""),
    "interface without device": ("via 10.2.0.2 interface 303", "{} via 10.2.0.2", ""),
    "reject": ("reject via 10.1.0.2 interface 301", "unreachable {}", ""),
    "local": ("local via 10.1.0.2 interface 301", None, ""),
    "kernel": ("kernel via 10.1.0.2 interface 301", None, ""),
    "install-kernel": ("install-kernel via 10.1.0.2 interface 301", "{} via 10.1.0.2", ""),
    "vrf device": ("via-vrf-device mpls via 10.1.0.2 interface 301", "{} dev blue_stk", ""),
    "mpls": ("mpls rfc5549 via 10.1.0.2 interface 301", "{} dev rt_mpls", ""),
    "rfc5549": ("rfc5549 via 10.1.0.2 interface 301", "{} dev rfc5549if", ""),
    "missing": ("via 10.1.0.2 interface 301", None, "- vrf 3 route {} via 10.1.0.2 dev rt1\n"),
    "discard": ("discard", None, "- vrf 3 route {} nowhere\n"),
    "not the switch's": (None, "{} via 10.1.0.2", "+ vrf 3 route {} via 10.1.0.2 dev rt1\n"),
    "local is there": ("local via 10.1.0.2 interface 301", "unreachable {}", "+ vrf 3 route {} unreachable\n"),
    "other gateway": ("via 10.1.0.2 interface 301", "{} via 10.1.0.3",
                      "~ vrf 3 route {} switch via 10.1.0.2 dev rt1, kernel via 10.1.0.3 dev rt1\n"),
    "other device": ("via 10.1.0.2 interface 301", "{} via 10.1.0.2 dev rt2 onlink",
                     "~ vrf 3 route {} switch via 10.1.0.2 dev rt1, kernel via 10.1.0.2 dev rt2\n"),
    "other type": ("via 10.1.0.2 interface 301", "blackhole {}",
                   "~ vrf 3 route {} switch via 10.1.0.2 dev rt1, kernel blackhole\n"),
    "another table": ("via 10.1.0.2 interface 301", "{} via 10.1.0.2 table 77",
                      "- vrf 3 route {} via 10.1.0.2 dev rt1\n"),
    "another program's": (None, "{} via 10.1.0.2 proto static", ""),
}


def test_diff_of_every_kind_of_route():
    vrf = labnet.make_vrf(3, "blue")
    labnet.dress(vrf)
    labnet.add_tunnel_devices(vrf)
    dump, kernel, expected = DUMP, [], ""
    for n, (on_switch, in_kernel, printed) in enumerate(KINDS.values()):
        prefix = f"20.0.{n}.0/24"
        if on_switch is not None:
            dump += f"route add vrf 3 {prefix} {on_switch}\n"
        if in_kernel is not None:
            owner = "" if "proto" in in_kernel else " proto 25"
            kernel.append("route add " + in_kernel.format(prefix) + owner)
        expected += printed.format(prefix)
    labnet.ip_batch(kernel, ns=vrf.name)

    with stand_in(lambda command: dump) as heard:
        found = orrinctl("diff", "vrf", 3, "routes")
        summary = orrinctl("diff", "summary", "routes")
    assert heard == ["dump vrf 3", "dump"]
    assert (found.stdout, found.stderr, found.returncode) == (expected, "", 1)
    assert summary.stdout.startswith("vrf 3 blue routes switch ") and summary.returncode == 1


# Each: commands of the switch's dump, what is done to the kernel's device, what diff prints. The device starts as the agent
# leaves it: up, a member of the group, with its address and the MTU that the switch holds. "#" stands for the interface.
INTERFACES = [
    (["enable #"], [], []),
    (["enable #", "host-mode #"], ["nobody joins"], []),
    (["enable #"], ["nobody joins"], ["- # membership of 224.0.0.2"]),
    (["enable #"], ["link set rt1 down"], ["~ # switch up, kernel down"]),
    ([], ["addr add 10.9.0.1/24 dev rt1 label rt1:9"],
     ["~ # switch down, kernel up", "+ # address 10.1.0.1/24 label rt1", "+ # address 10.9.0.1/24 label rt1:9"]),
    ([], ["addr flush dev rt1", "link set rt1 down"], []),
    (["enable #"], ["link set rt1 mtu 1400 address 02:00:00:00:00:99"],
     ["~ # mac switch 02:00:00:00:00:01, kernel 02:00:00:00:00:99", "~ # mtu switch 1500, kernel 1400"]),
    (["secondary # add 10.8.0.1/16 index 4", "secondary # add 10.8.0.2/16 index 5", "vrrp # label 7 add 10.1.0.9 slot 31",
      "enable #"], ["addr add 10.8.0.1/16 dev rt1 label rt1:4", "addr add 10.8.0.2/16 dev rt1 label rt1:6"],
     ["- # address 10.1.0.9/32 label rt1:7_31", "- # address 10.8.0.2/16 label rt1:5",
      "+ # address 10.8.0.2/16 label rt1:6"]),
    (["enable #"], ["link del rt1"], ["- # no such device"]),
]
JOIN = ("import socket, signal; s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.setsockopt(socket.IPPROTO_IP, "
        "socket.IP_ADD_MEMBERSHIP, socket.inet_aton('224.0.0.2') + socket.inet_aton('10.1.0.1')); "
        "print('joined', flush=True); signal.pause()")


@pytest.mark.parametrize("case", INTERFACES)
def test_diff_of_interfaces(case):
    on_switch, in_kernel, printed = case
    vrf = labnet.make_vrf(3, "blue", links=1)
    labnet.dress(vrf, links=1)
    if "nobody joins" not in in_kernel:
        member = labnet.Process("member", labnet.in_netns(vrf.name, "/usr/bin/python3", "-c", JOIN))
        member.start()
        labnet.until(lambda: "joined" in member.said(), 10, "somebody has joined")
    labnet.ip_batch(["link set rt1 address 02:00:00:00:00:01", *(each for each in in_kernel if each != "nobody joins")],
                    ns=vrf.name)
    dump = "vrf add 3 blue netns blue\nvrf set 3 routing on\ninterface add 301 vrf 3 name 1/3/1 device rt1\n" \
        "interface set 301 mac 02:00:00:00:00:01 address 10.1.0.1/24 mtu 1500 bandwidth 1 unreachables 1 redirects 1\n"
    dump += "".join(f"interface {each.replace('#', '301')}\n" for each in on_switch)
    with stand_in(lambda command: dump):
        found = orrinctl("diff", "interfaces")
    assert found.stdout == "".join(line.replace("#", "vrf 3 interface 301 rt1") + "\n" for line in printed)
    assert found.returncode == (1 if printed else 0)


def test_diff_that_cannot_compare():
    labnet.make_vrf(3, "blue")
    for dump, why in ((DUMP.replace("netns blue", "netns nowhere"), "cannot enter namespace /run/netns/nowhere"),
                      (DUMP.replace(" netns blue", ""), "no network namespace is set"),
                      ("route add vrf 4 10.0.0.0/8 reject\n", "there is no VRF 4")):
        with stand_in(lambda command: dump):
            done = orrinctl("diff")
        assert done.returncode == 2 and done.stdout == "" and why in done.stderr
    with stand_in(lambda command: DUMP.replace("netns blue", "netns /run/netns/blue")):
        assert orrinctl("diff", "routes").returncode == 0
        assert orrinctl("diff", "vrf").returncode == 2
        assert orrinctl("diff", "vrf", "3x").returncode == 2
