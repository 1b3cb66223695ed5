"""Routes that other programs add to the kernel: the switch is told of those that mean something to it, and of no others, also
when more is going on than the agent can listen to."""

import contextlib
import json
import os
import pathlib
import re
import signal

import labnet
from labnet import until, until_all_mirrored

PATIENCE = int(os.environ.get("MIREL_PATIENCE", 1))
CONNECTED = {("10.1.0.0/24", "kernel proto 7 via 0.0.0.0 interface 301"),
             ("10.2.0.0/24", "kernel proto 7 via 0.0.0.0 interface 302")}

# What `ip route` or `ip -6 route` adds, and what the switch then shows. None: nothing.
ROUTES = [
    ("20.0.0.0/16 via 10.1.0.2 proto static", ("20.0.0.0/16", "kernel proto 7 via 10.1.0.2 interface 301")),
    ("20.1.0.0/16 via 10.2.0.2 proto bird", ("20.1.0.0/16", "kernel proto 7 via 10.2.0.2 interface 302")),
    ("20.2.0.0/16 dev rt2", ("20.2.0.0/16", "kernel proto 7 via 0.0.0.0 interface 302")),
    ("20.3.0.1/32 via 10.1.0.2", ("20.3.0.1/32", "kernel proto 7 via 10.1.0.2 interface 301")),
    ("20.4.0.0/16 via 10.1.0.2 metric 77", ("20.4.0.0/16", "kernel metric 77 proto 7 via 10.1.0.2 interface 301")),
    ("20.4.0.0/16 via 10.1.0.3 metric 78", ("20.4.0.0/16", "kernel metric 78 proto 7 via 10.1.0.3 interface 301")),
    ("default via 10.2.0.9", ("0.0.0.0/0", "kernel proto 7 via 10.2.0.9 interface 302")),
    ("blackhole 20.5.0.0/16", ("20.5.0.0/16", "kernel discard proto 7")),
    ("unreachable 20.6.0.0/16 metric 5", ("20.6.0.0/16", "kernel reject metric 5 proto 7")),
    ("prohibit 20.7.0.0/16", ("20.7.0.0/16", "kernel reject proto 7")),
    ("2001:db8:5::/48 via 2001:db8:1::2", ("2001:db8:5::/48", "kernel via 2001:db8:1::2 interface 301")),
    ("2001:db8:6::1/128 dev rt2 metric 9", ("2001:db8:6::1/128", "kernel via :: interface 302")),
    ("unreachable 2001:db8:7::/48", ("2001:db8:7::/48", "kernel reject")),
    ("20.8.0.0/16 via 10.1.0.2 proto 25", None),  # as the agent's own
    ("20.9.0.0/16 via 10.1.0.2 table 255", None),
    ("20.10.0.0/16 via 10.1.0.2 table 100", None),
    ("20.11.0.0/16 nexthop via 10.1.0.2 nexthop via 10.2.0.2", None),  # has no one interface
    ("20.12.0.0/16 dev other", None),  # nor has the switch this one
    ("fe80:5::/64 dev rt1", None),
    ("::ffff:10.9.0.0/112 dev rt1", None),
]


def kernel_routes(system):
    """(prefix, the rest) of the switch's routes that came from the kernel."""
    rows = (line.split(maxsplit=4) for line in system.switch.ctl("show", "routes", "vrf", 3).splitlines()[1:])
    return {(row[1], row[4]) for row in rows if row[2] == "kernel"}


def how_many(system):
    return json.loads(system.switch.ctl("show", "vrfs", "vrf", 3, "json"))[0]["kernel-routes"]


def until_kernel_routes(system, routes):
    until(lambda: kernel_routes(system) == routes, 10,
          lambda: f"missing: {routes - kernel_routes(system)}, too many: {kernel_routes(system) - routes}")


def ip_route(vrf, verb, lines):
    for family in ("-4", "-6"):
        wanted = "".join(f"route {verb} {line}\n" for line in lines if (":" in line) == (family == "-6"))
        labnet.run("ip", "-n", vrf.name, family, "-batch", "-", input=wanted)


def counts(agent):
    """What the agent's import statistics count -> how many."""
    rows = re.findall(r"^Count of ([^:]*): (\d+)$", agent.sh("rtoNetlinkStatsShow"), re.MULTILINE)
    return {what: int(number) for what, number in rows}


def installed(agent):
    return int(re.search(r"^Routes Added: *(\d+)", agent.sh("mirelStatsShow"), re.MULTILINE)[1])


@contextlib.contextmanager
def stopped(process):
    process.child.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        process.child.send_signal(signal.SIGCONT)


def foreign(first, count):
    """Prefixes, and what the switch shows of them when they leave through rt1."""
    prefixes = [f"{first}.{number >> 8}.{number & 255}.0/24" for number in range(count)]
    return prefixes, {(prefix, "kernel proto 7 via 10.1.0.2 interface 301") for prefix in prefixes}


def test_which_routes_reach_the_switch():
    system = labnet.start_system()
    blue = system.vrfs[0]
    until_kernel_routes(system, CONNECTED)
    labnet.ip_batch(["link add other type bridge", "link set other up", "addr add 2001:db8:1::1/64 dev rt1 nodad"],
                    ns=blue.name)
    before = CONNECTED | {("2001:db8:1::/64", "kernel via :: interface 301")}
    lines = [line for line, _ in ROUTES]
    ip_route(blue, "add", lines)
    until_kernel_routes(system, before | {shown for _, shown in ROUTES if shown})
    assert labnet.differences(blue, ("neighbours", "kernel-routes")) == ""

    # A replacement is announced as an addition, and is known under the same prefix and metric.
    for gateway, interface in (("10.2.0.5", 302), ("10.1.0.2", 301)):
        labnet.ip("route", "replace", "20.0.0.0/16", "via", gateway, "proto", "static", ns=blue.name)
        now = ("20.0.0.0/16", f"kernel proto 7 via {gateway} interface {interface}")
        until(lambda: now in kernel_routes(system), 5, lambda: f"{now} is there: {kernel_routes(system)}")
    ip_route(blue, "del", lines)
    until_kernel_routes(system, before)
    counted = counts(system.agents[0])
    assert not any(number for what, number in counted.items() if not what.startswith(("successful", "invalid"))), counted
    until_all_mirrored(blue)


def test_routes_of_others_during_a_burst_of_own_installs():
    """50,000 installs are announced on the same groups: none of the other program's hundred may get lost among them."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    prefixes, shown = foreign(21, 100)
    system.switch.ctl(*"routes add vrf 3 50.0.0.0/28 count 50000 via 10.1.0.2 interface 301".split())
    own_while_adding = []
    for prefix in prefixes:
        labnet.ip("route", "add", prefix, "via", "10.1.0.2", ns=blue.name)
        own_while_adding.append(installed(agent))
    assert own_while_adding[0] < own_while_adding[-1] and own_while_adding[0] < 50000, "the two went on at the same time"
    until_kernel_routes(system, CONNECTED | shown)
    until_all_mirrored(blue)
    assert counts(agent)["RTO netlink socket receive errors"] == 0
    assert counts(agent)["queue drops while queueing to qv-ext-route-task"] == 0


def test_own_routes_take_no_room_from_those_of_others():
    """As many announcements of the agent's protocol as overflow the socket, while it is not read, and only then a hundred."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    until_kernel_routes(system, CONNECTED)
    own, _ = foreign(23, 20000)
    others, shown = foreign(24, 100)
    with stopped(agent):
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2 proto {labnet.AGENT_PROTOCOL}" for prefix in own])
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in others])
    until_kernel_routes(system, CONNECTED | shown)
    assert counts(agent)["RTO netlink socket receive errors"] == 0


QUIET_SECONDS = 10  # after which the switch equals the kernel, whatever was lost


def until_synchronised(system):
    blue = system.vrfs[0]
    until(lambda: not labnet.differences(blue, ("kernel-routes",)), QUIET_SECONDS * PATIENCE,
          lambda: f"the switch holds the kernel's routes; {counts(system.agents[0])}, differences: "
                  f"{labnet.differences(blue, ('kernel-routes',))[:1000]}")


def test_notifications_lost_while_the_agent_is_stopped():
    """More than the socket holds; then changes that arrive while the dump is read. Losses hide withdrawals too."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    until_kernel_routes(system, CONNECTED)
    early, late = foreign(22, 20000)[0], foreign(25, 300)[0]
    with stopped(agent):
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in early])
    until(lambda: how_many(system) > 2000, 10, "the resync has begun")
    ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in late])
    ip_route(blue, "del", early[:300])
    until_synchronised(system)
    assert how_many(system) == len(CONNECTED) + 20000
    assert counts(agent)["RTO netlink socket receive errors"] > 0, "the socket overflowed"
    with stopped(agent):
        ip_route(blue, "del", early[300:])
    until_synchronised(system)
    assert how_many(system) == len(CONNECTED) + 300
    until_all_mirrored(blue)


def test_a_switch_that_does_not_answer_loses_no_route():
    """A call that is not answered fails after five seconds."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    prefixes, shown = foreign(26, 50)
    ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in prefixes[:10]])
    until_kernel_routes(system, CONNECTED | {row for row in shown if row[0] in prefixes[:10]})
    with stopped(system.switch):
        ip_route(blue, "add", [f"{prefixes[10]} via 10.1.0.2"])
        until(lambda: counts(agent)["unsuccessful route add"], 10, "the report fails")
        ip_route(blue, "del", prefixes[:10])
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in prefixes[11:]])
    until_synchronised(system)
    assert how_many(system) == len(CONNECTED) + 40


def test_losses_after_a_link_was_down():
    """Neither the kernel nor the switch announces that it drops the routes through it; the agent's record still has them."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    prefixes, _ = foreign(28, 10000)
    for link_was_down in (False, True):
        if link_was_down:
            system.switch.ctl("interface", "disable", 301)
            until(lambda: how_many(system) == 1, 10, "the switch has dropped the routes")
            system.switch.ctl("interface", "enable", 301)
        until_kernel_routes(system, CONNECTED)
        drops = counts(agent)["queue drops while queueing to qv-ext-route-task"]
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in prefixes])
        until_synchronised(system)
        assert counts(agent)["queue drops while queueing to qv-ext-route-task"] > drops, "the queue was too short"


def bird(blue):
    """A routing daemon that exports static routes; returns its process and the function that gives it others."""
    folder = pathlib.Path("/tmp/bird")
    folder.mkdir()

    def configure(routes, control=True):
        statics = "".join(f"protocol static static_{family} {{ {family};\n{''.join(routes.get(family, []))}}}\n"
                          f"protocol kernel {{ {family} {{ export all; }}; }}\n" for family in ("ipv4", "ipv6"))
        (folder / "conf").write_text(f"router id 10.1.0.1;\nprotocol device {{}}\n{statics}")
        if control:
            labnet.run("birdc", "-s", folder / "control", "configure")

    configure({}, control=False)
    daemon = labnet.Process("bird", labnet.in_netns(blue.name, "bird", "-f", "-c", folder / "conf", "-s", folder / "control"))
    daemon.start()
    until((folder / "control").exists, 10, "bird answers")
    return daemon, configure


def test_a_routing_daemon():
    """It exports more at once than the queue holds, moves most, withdraws some, is killed and leaves the rest behind."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    labnet.ip("addr", "add", "2001:db8::1/64", "dev", "rt1", "nodad", ns=blue.name)
    until_all_mirrored(blue)
    daemon, configure = bird(blue)
    prefixes, prefixes6 = foreign(27, 10000)[0], [f"2001:db8:1:{number:x}::/64" for number in range(2000)]

    def routes(moved):
        return {"ipv4": [f"route {prefix} via 10.{2 if moved and index % 4 else 1}.0.2;\n"
                         for index, prefix in enumerate(prefixes) if not moved or index % 8],
                "ipv6": [f"route {prefix} via 2001:db8::{3 if moved else 2};\n"
                         for index, prefix in enumerate(prefixes6) if not moved or index % 2]}

    def in_kernel(count):
        exported = lambda: sum(labnet.run("ip", "-n", blue.name, family, "route", "show", "proto", "bird").count("\n") for family in ("-4", "-6"))
        until(lambda: exported() == count, 20 * PATIENCE, lambda: f"the kernel has {exported()} routes of bird, not {count}")
        until_synchronised(system)

    configure(routes(moved=False))
    in_kernel(12000)
    assert counts(agent)["queue drops while queueing to qv-ext-route-task"] > 0, "the queue was too short"
    configure(routes(moved=True))
    in_kernel(9750)
    daemon.kill()
    configure({}, control=False)
    in_kernel(9750)
    daemon.start()  # withdraws what is left of its own
    in_kernel(0)
    until_all_mirrored(blue)
