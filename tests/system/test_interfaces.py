"""Router interfaces of the switch on the kernel's devices: every setting is followed, and what an agent or a switch was
doing when it died is made good."""

import json
import signal

import labnet
from labnet import until, until_all_mirrored, until_mirrored


def link(vrf, device):
    return labnet.ip_json("addr", "show", "dev", device, ns=vrf.name)[0]


def addresses(vrf, device):
    """(address, broadcast, label) of each IPv4 address."""
    return {(f"{each['local']}/{each['prefixlen']}", each.get("broadcast"), each["label"])
            for each in link(vrf, device)["addr_info"] if each["family"] == "inet"}


def setting(vrf, name):
    return labnet.run(*labnet.in_netns(vrf.name, "cat", f"/proc/sys/net/ipv4/{name}")).strip()


def member(vrf, device):
    groups = labnet.ip_json("maddress", "show", "dev", device, ns=vrf.name)[0]["maddr"]
    return any(group.get("address") == "224.0.0.2" for group in groups)


PRIMARY = ("10.1.0.1/24", "10.1.0.255", "rt1")

# In this order, each from what the one before left: the command, and what `ip -j` or the kernel's setting then shows of rt1.
STEPS = [
    ("interface set 301 mtu 1400", lambda vrf: link(vrf, "rt1")["mtu"], 1400),
    ("interface secondary 301 add 10.5.0.1/16 index 3", lambda vrf: addresses(vrf, "rt1"),
     {PRIMARY, ("10.5.0.1/16", "10.5.255.255", "rt1:3")}),
    ("interface secondary 301 add 10.5.0.2/16 index 9", lambda vrf: len(addresses(vrf, "rt1")), 3),
    ("interface secondary 301 del 10.5.0.1/16", lambda vrf: addresses(vrf, "rt1"),
     {PRIMARY, ("10.5.0.2/16", "10.5.255.255", "rt1:9")}),
    ("interface secondary 301 del 10.5.0.2/16", lambda vrf: addresses(vrf, "rt1"), {PRIMARY}),
    ("interface vrrp 301 label 2 add 10.1.0.200 slot 0 10.1.0.201 slot 31", lambda vrf: addresses(vrf, "rt1"),
     {PRIMARY, ("10.1.0.200/32", None, "rt1:2_0"), ("10.1.0.201/32", None, "rt1:2_31")}),
    ("interface vrrp 301 label 2 del 10.1.0.200 10.1.0.201", lambda vrf: addresses(vrf, "rt1"), {PRIMARY}),
    ("interface set 301 redirects 0", lambda vrf: setting(vrf, "conf/rt1/send_redirects"), "0"),
    ("interface set 301 address 10.1.0.1/31", lambda vrf: addresses(vrf, "rt1"),
     {("10.1.0.1/31", "255.255.255.255", "rt1")}),
    ("interface set 301 mac 02:00:00:00:77:01", lambda vrf: link(vrf, "rt1")["address"], "02:00:00:00:77:01"),
    ("vrf set 3 icmp-ratelimit 40 400",
     lambda vrf: (setting(vrf, "icmp_msgs_burst"), setting(vrf, "icmp_ratelimit")), ("40", "400")),
    ("vrf set 3 icmp-echo-reply 0", lambda vrf: setting(vrf, "icmp_echo_ignore_all"), "1"),
    ("vrf set 3 icmp-echo-reply 1", lambda vrf: setting(vrf, "icmp_echo_ignore_all"), "0"),
    ("interface host-mode 301", lambda vrf: (member(vrf, "rt1"), "UP" in link(vrf, "rt1")["flags"]), (False, True)),
    ("interface disable 301", lambda vrf: ("UP" in link(vrf, "rt1")["flags"], addresses(vrf, "rt1")), (False, set())),
    ("interface enable 301", lambda vrf: (member(vrf, "rt1"), "UP" in link(vrf, "rt1")["flags"], len(addresses(vrf, "rt1"))),
     (True, True, 1)),
    ("interface enable 301", lambda vrf: (member(vrf, "rt1"), "UP" in link(vrf, "rt1")["flags"], len(addresses(vrf, "rt1"))),
     (True, True, 1)),
]


def test_every_change_is_followed():
    system = labnet.start_system()
    blue = system.vrfs[0]
    others = addresses(blue, "rt2")
    for command, look, wanted in STEPS:
        system.switch.ctl(*command.split())
        until(lambda: look(blue) == wanted, 10, lambda: f"{command}: {wanted}, not {look(blue)}")
        until_all_mirrored(blue)
    assert addresses(blue, "rt2") == others
    assert json.loads(system.switch.ctl("show", "events", "json")) == []


def redirects_sent(vrf):
    names, values = [line.split() for line in labnet.run(*labnet.in_netns(vrf.name, "cat", "/proc/net/snmp")).splitlines()
                     if line.startswith("Icmp:")]
    return int(values[names.index("OutRedirects")])


def test_redirects_off_is_really_off():
    """A host sends through the VRF to a gateway on its own link, as redirects are made for."""
    system = labnet.start_system(script=["route add vrf 3 198.18.0.0/24 via 10.1.0.3 interface 301"])
    blue = system.vrfs[0]
    until_mirrored(blue)
    ping = labnet.in_netns(blue.host(1), "ping", "-c1", "-W1", "198.18.0.1")
    until(lambda: labnet.subprocess.run(ping, capture_output=True) and redirects_sent(blue) > 0, 15, "a redirect is sent")

    system.switch.ctl("interface", "set", 301, "redirects", 0)
    until(lambda: setting(blue, "conf/rt1/send_redirects") == "0", 10, "the agent has followed")
    before = redirects_sent(blue)
    labnet.ip("neigh", "flush", "all", ns=blue.name)
    for _ in range(3):
        labnet.subprocess.run(ping, capture_output=True)
    assert redirects_sent(blue) == before


def test_agent_killed_while_interfaces_change():
    """Whatever the switch changes while no agent runs is made good by the next one."""
    system = labnet.start_system(script=["interface secondary 301 add 10.5.0.1/16", "interface vrrp 301 label 2 add 10.1.0.200",
                                         "routes add vrf 3 20.0.0.0/24 count 100 via 10.1.0.2 interface 301"])
    blue, agent, ctl = system.vrfs[0], system.agents[0], system.switch.ctl
    until_mirrored(blue)
    same = addresses(blue, "rt1")
    agent.kill(signal.SIGKILL)
    agent.start()
    agent.quick()
    until_mirrored(blue)
    assert addresses(blue, "rt1") == same

    agent.kill(signal.SIGKILL)
    for command in ("secondary 301 del 10.5.0.1/16", "secondary 301 add 10.6.0.1/16", "vrrp 301 label 2 del 10.1.0.200",
                    "set 301 mtu 1300 address 10.1.0.1/23", "disable 302"):
        ctl("interface", *command.split())
    agent.start()
    agent.quick()
    until_mirrored(blue)
    assert "UP" not in link(blue, "rt2")["flags"]
    assert addresses(blue, "rt1") == {("10.1.0.1/23", "10.1.1.255", "rt1"), ("10.6.0.1/16", "10.6.255.255", "rt1:1")}


def test_routing_starts_after_the_agent():
    """Until the switch's routing has started, nothing is touched; then everything comes at once."""
    vrf = labnet.make_vrf(3, "blue")
    switch = labnet.Switch([*labnet.vrf_script(vrf), "route add vrf 3 20.0.0.0/8 via 10.1.0.2 interface 301"])
    switch.start()
    agent = labnet.Agent(vrf)
    agent.start()
    agent.quick()
    assert addresses(vrf, "rt1") == set()
    switch.ctl("vrf", "set", 3, "routing", "on")
    until_all_mirrored(vrf)
    assert "20.0.0.0/8" in vrf.mirrored()


def test_many_routes_of_one_interface():
    """10,000 routes come back over several polls, between which the agent serves others; a disable ends what is left."""
    # The report of a connected route would be a change of its own, with which all routes of the interface come at once.
    system = labnet.start_system(script=["routes add vrf 3 50.0.0.0/28 count 10000 via 10.1.0.2 interface 301",
                                         "vrf set 3 kernel-routes 0"])
    blue, ctl = system.vrfs[0], system.switch.ctl
    until_mirrored(blue)
    ctl("interface", "disable", 301)
    until(lambda: not blue.mirrored(), 10, "the kernel has dropped the routes")
    ctl("fault", "set", "tarnapiIntfBestRoutesNextGet", "delay", 20)
    ctl("interface", "enable", 301)
    until(lambda: 0 < len(blue.mirrored()) < 10000, 10, "some routes are there")
    ctl("interface", "set", 302, "mtu", 1280)
    until(lambda: link(blue, "rt2")["mtu"] == 1280, 5, "an event is served in between")
    assert len(blue.mirrored()) < 10000
    ctl("fault", "clear")
    until_mirrored(blue)


def test_a_thousand_interfaces():
    """Enabled in one go: none is forgotten, no event is left without acknowledgement."""
    vrf = labnet.make_vrf(3, "blue", links=0)
    count = 1000
    labnet.ip_batch(["link add base type bridge", "link set base up",
                     *(f"link add link base name rt{n} type macvlan mode bridge" for n in range(1, count + 1))], ns=vrf.name)
    switch = labnet.Switch(["vrf add 3 blue interface blue netns blue", "vrf set 3 routing on"])
    switch.start()
    agent = labnet.Agent(vrf)
    agent.start()
    # What start-up replays is enabled twice, and a group cannot be joined twice: the best-route client comes behind the replay.
    until(lambda: len(json.loads(switch.ctl("show", "clients", "json"))) == 2, 10, "both clients are registered")
    switch.script_in([line for n in range(1, count + 1) for line in (
        f"interface add {n} vrf 3 name 1/3/{n} device rt{n}",
        f"interface set {n} address 10.{n // 250}.{n % 250}.1/24 mtu {1280 + n % 200}", f"interface enable {n}")])
    until_all_mirrored(vrf, 30)
    until(lambda: json.loads(switch.ctl("show", "events", "json")) == [], 10, "everything is acknowledged")
    assert sum(member(vrf, f"rt{n}") for n in (1, 500, 1000)) == 3
    assert agent.said().count("multicast") == 0
