"""Routes that other programs add to the kernel: the switch is told of those that mean something to it, and of no others, also
when more is going on than the agent can listen to."""

import contextlib
import json
import re
import signal

import labnet
from labnet import until, until_all_mirrored

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
def stopped(agent):
    agent.child.send_signal(signal.SIGSTOP)
    try:
        yield
    finally:
        agent.child.send_signal(signal.SIGCONT)


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


def test_what_a_stopped_agent_has_missed_is_made_good():
    """Far more announcements than the socket holds, while the agent cannot read one of them."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    until_kernel_routes(system, CONNECTED)
    prefixes, shown = foreign(22, 20000)
    with stopped(agent):
        ip_route(blue, "add", [f"{prefix} via 10.1.0.2" for prefix in prefixes])
        assert kernel_routes(system) == CONNECTED
    until(lambda: how_many(system) == len(CONNECTED | shown), 45, lambda: f"the switch knows {how_many(system)} kernel routes")
    assert kernel_routes(system) == CONNECTED | shown
    assert counts(agent)["RTO netlink socket receive errors"] > 0, "the socket overflowed"
    until_all_mirrored(blue)
