"""The kinds of faults of faults.py, a function each. It strikes, and returns None when a trace must have been left; SEEN when it
has looked itself; NOTHING when no trace may be left; or in words why none is to be expected."""

import os
import pathlib
import re
import resource
import signal
import subprocess
import time

import labnet
from fault_system import HEAL_SECONDS, LINKS, PROBE

BURST = 40000
NEIGHBOURS, NEIGHBOUR_ROUNDS = 600, 60  # some 30 MB of announcements, for a socket of 8
EVENTS = 18000  # more than orrin keeps for a client
DRAINED = 20000
TRIES = 8
ROUTER_SILENCE, BEST_ROUTE_SILENCE = 130, 250  # seconds, longer than an agent bears
CODES = {"LOCAL_ADDR": -21, "INVALID": -22, "FULL": -23, "EXISTS": -24, "REFUSED": -25, "FAILURE": -26, "NOT_YET": -28,
         "NOT_FOUND": -29, "NO_MORE": -30, "unknown": -99}
ONCE, FOR_A_WHILE = "times 1", "times 1000000"
SEEN, NOTHING = "seen by the fault itself", "nothing must be seen"

# Platform calls ------------------------------------------------------------------------------------------------------

# Calls that an agent's start makes.
START_CALLS = ("ServiceClientRegister", "ConnectivityCheck", "VrfNameGet", "RoutingStartupStatusVr", "RouterEventRegister",
               "RtrIntfNextGetVrf", "BestRouteEventRegisterVr", "RoutingProtocolRegister", "RouteTypeRegister")
# Calls that every change makes.
RUN_CALLS = ("RtrICMPRatelimitGet", "RtrICMPEchoReplyModeGet", "RouterEventAcknowledge", "RtrIntfTypeGet", "RtrIntfNameGet",
             "RtrIntfIpStackStkNameGet", "RtrIntfL3MacAddressGet", "RtrIntfIpAddrGet", "RtrIntfSecIpAddrGet", "IntfIpMtuGet",
             "IntfBandwidthGet", "RtrICMPUnreachablesModeGet", "RtrICMPRedirectsModeGet", "ServicePortGatewayIPv4AddrGet",
             "NetworkPortGatewayIPv4AddrGet", "KernelArpAdd", "KernelArpDelete", "ArpResolve", "StackIfIndexIntIfNumGet",
             "BestRouteChangeNextGetMult", "IntfBestRoutesNextGet", "KernelRouteAddVr", "KernelRouteDelVr", "SystemReadyStateGet",
             "VrfIntfNameGet", "MirelProbeResultIpSlaNotify")
# Calls that an agent makes when the switch has been silent for so long.
SILENCE_CALLS = {"RouterEventDeregister": ROUTER_SILENCE, "BestRouteEventDeregister": BEST_ROUTE_SILENCE}
# Calls of the agent of VRF 0.
DEFAULT_VRF_CALLS = ("RtrIntfIpStackIfNameGet", "RtrIntfIpStackIfIndexGet")
# What the agent passes over by design, by call, or by call and code.
PASSED_OVER = {
    "ConnectivityCheck": "it is asked again every second",
    "RtrIntfNextGetVrf": "the walk ends there, and the switch's events bring the interfaces up",
    "RouterEventAcknowledge": "the switch stops waiting for it by itself",
    "ServicePortGatewayIPv4AddrGet": "as good as no such port",
    "NetworkPortGatewayIPv4AddrGet": "as good as no such port",
    "SystemReadyStateGet": "as good as ready",
    ("RouterEventRegister", "NOT_YET"): "it is asked again every second",
    ("BestRouteEventRegisterVr", "NOT_YET"): "it is asked again every second",
    ("BestRouteChangeNextGetMult", "NO_MORE"): "as good as no changes; the switch tells of them again",
    ("IntfBestRoutesNextGet", "NO_MORE"): "as good as no routes; the switch sends them again once the enable is acknowledged",
    ("RtrIntfSecIpAddrGet", "NO_MORE"): "as good as no such addresses",
    ("KernelArpAdd", "EXISTS"): "it is there",
    ("KernelArpAdd", "LOCAL_ADDR"): "it is the switch's own",
    ("KernelArpDelete", "NOT_FOUND"): "it is not there",
    ("KernelArpDelete", "NOT_YET"): "it is the switch's own",
    **{("ArpResolve", code): "as good as a neighbour that nobody knows" for code in CODES if code != "NOT_FOUND"},
    ("KernelRouteAddVr", "EXISTS"): "it is there",
    **{("KernelRouteDelVr", code): "it is not the agent's" for code in CODES if code not in ("FAILURE", "EXISTS", "FULL")},
}


# Faults --------------------------------------------------------------------------------------------------------------


def nothing(system, what):
    """The control: what is done with every fault leaves no trace."""
    if what == "restart":
        system.agent.spawn()
        labnet.until(system.agent_is_up, HEAL_SECONDS, "the agent has registered")
        system.agent.come_up()
    system.change()
    system.change()
    system.settle()
    time.sleep(0.5)
    return NOTHING


def agent_killed(system, moment):
    if moment == "start-up":
        system.agent.spawn()
        time.sleep(system.dice.uniform(0, 0.06))
    elif moment == "drain":
        kill_within_drain(system)
    elif moment == "enable":
        system.switch.script_in(line for interface in system.interfaces
                                for line in (f"interface disable {interface}", f"interface enable {interface}"))
        time.sleep(system.dice.uniform(0, 0.1))
    else:  # replay
        system.agent.spawn()
        system.agent.come_up()
        system.switch.script_in(f"interface enable {interface}" for interface in system.interfaces)
        time.sleep(system.dice.uniform(0, 0.05))
    system.agent.kill()
    system.change()
    system.agent.come_up()
    system.agent.says("process restarted")
    return SEEN


def kill_within_drain(system):
    """While some changes have been installed and others not been fetched."""
    def waiting():
        clients = system.show("clients")
        return sum(client["waiting"] + client["in-flight"] for client in clients if client["pid"] == system.agent.pid)
    for _ in range(TRIES):
        before = system.agent.counters()["numRoutesAdded"]
        system.switch.ctl(*f"routes add vrf 3 70.0.0.0/24 count {DRAINED} {system.way(2)}".split())
        labnet.until(lambda: system.agent.counters()["numRoutesAdded"] > before, HEAL_SECONDS, "the drain has begun")
        system.agent.kill()
        left = waiting()
        system.switch.ctl(*f"routes del vrf 3 70.0.0.0/24 count {DRAINED}".split())
        if left:
            return
        system.heal()
    raise RuntimeError("every drain had ended before its agent was killed")


def switch_killed(system, also_agent):
    system.change()
    system.kill_switch()
    if also_agent:
        system.agent.kill()
    system.change()
    time.sleep(system.dice.uniform(0, 2))
    if not also_agent:
        return None
    system.revive_switch()
    system.agent.come_up()
    system.agent.says("process restarted")
    return SEEN


def switch_stopped(system, seconds):
    system.switch.child.send_signal(signal.SIGSTOP)
    try:
        system.change_kernel(1)
        time.sleep(seconds)
    finally:
        system.switch.child.send_signal(signal.SIGCONT)
    system.change()
    return "short stops are waited out" if seconds < 10 else None


def call_fails(system, call, code, how):
    how_often = int(how.split()[1])
    act, rounds = system.change, 1
    if call in START_CALLS:
        act, rounds = system.agent.spawn, 1 if how == ONCE else 3
    elif call in SILENCE_CALLS:
        def act():
            silence(system, SILENCE_CALLS[call])
    system.switch.ctl("fault", "set", call, "result", CODES[code], *how.split())
    for _ in range(rounds):
        how_often = make_call(system, call, act, how_often)
    if call in SILENCE_CALLS:
        system.loop_turns_or_ends()  # its name may be taken by itself
    if call in RUN_CALLS:
        if how != ONCE:
            system.change()
            system.loop_turns()  # in the fault
        time.sleep(0.1)
    return PASSED_OVER.get(call) or PASSED_OVER.get((call, code))


def make_call(system, call, act, how_often):
    """Until the call has failed, or failed again: a fault that has struck as often as it was to is gone; the others say how often
    they still will. Returns how often."""
    def left():
        return next((row["times"] for row in system.show("faults") if re.fullmatch(f"(rpcclt_)?tarnapi{call}", row["call"])), 0)
    for _ in range(TRIES):
        act()
        deadline = time.monotonic() + 2
        while time.monotonic() < deadline:
            if (still := left()) < how_often:
                time.sleep(0.1)  # for what the agent makes of it
                return still
            time.sleep(0.02)
    raise RuntimeError("the call was not made")


def silence(system, seconds):
    """The agent hears nothing for so long, and registers anew."""
    system.switch.ctl("keepalive", "hold", "vrf", 3)
    try:
        time.sleep(0.1)  # for one that is under way
        system.set_clocks(monotonic=seconds)
        time.sleep(1.2)  # the loop's wait
    finally:
        system.switch.ctl("keepalive", "release", "vrf", 3)


def default_vrf_call_fails(system, call, code, how):
    """Of the agent of VRF 0 alone, whose devices the switch names and numbers."""
    agent = system.default_agent
    agent.come_up()
    agent.forget()
    system.switch.ctl("fault", "set", call, "result", CODES[code], *how.split())
    make_call(system, call, lambda: system.switch.ctl("interface", "enable", 1), int(how.split()[1]))
    labnet.until(agent.shown, HEAL_SECONDS, f"{agent.name} says that {call} failed")
    system.switch.ctl("fault", "clear")
    system.switch.ctl("interface", "enable", 1)
    labnet.until(lambda: agent.knows_device(1, "rt1"), HEAL_SECONDS, "the interface is known")
    agent.kill()  # or it would take other faults upon itself
    return SEEN


def device_gone(system, how):
    vrf, number = system.vrf, system.dice.randint(1, LINKS)
    if how == "deleted":
        labnet.ip("link", "del", f"rt{number}", ns=vrf.name)
    elif how == "renamed":
        labnet.ip_batch([f"link set rt{number} down", f"link set rt{number} name other"], ns=vrf.name)
    else:
        labnet.ip("link", "set", f"rt{number}", "down", ns=vrf.name)
    for interface in system.interfaces:
        system.switch.ctl("interface", "enable", interface)
    system.switch.script_in(system.routes("modify", number))
    system.loop_turns()
    time.sleep(0.5)
    if how == "deleted":
        labnet.ip(*f"link add link base name rt{number} type macvlan mode bridge".split(), ns=vrf.name)
    elif how == "renamed":
        labnet.ip("link", "set", "other", "name", f"rt{number}", ns=vrf.name)
    return "an enable sets it up again" if how == "down" else None


def gateway_refused(system):
    """The kernel takes no broadcast address as a gateway."""
    system.switch.ctl(*"routes add vrf 3 50.0.0.0/24 count 50 via 10.2.0.255 interface 302".split())
    counted(system, "numRouteAddErrors", 50)
    system.switch.ctl(*"routes del vrf 3 50.0.0.0/24 count 50".split())


def switch_table_full(system):
    system.switch.ctl("vrf", "set", 3, "kernel-routes", 5)
    other_routes(system, "add", 200)
    counted(system, "numExtRouteAddErrors", 190)
    system.switch.ctl("vrf", "set", 3, "kernel-routes", 1000000)
    other_routes(system, "del", 200)


def other_routes(system, verb, count):
    """Of another program."""
    labnet.ip_batch((f"route {verb} 60.{n >> 8}.{n & 255}.0/24 via 10.1.0.2 dev rt1 proto 4" for n in range(count)),
                    ns=system.vrf.name)


def counted(system, key, at_least):
    """So many errors since the fault began."""
    before = system.agent.before[1][key]
    labnet.until(lambda: system.agent.counters()[key] >= before + at_least, HEAL_SECONDS, f"{key} has grown by {at_least}")


def overrun(system, what):
    """So much happens while the agent is stopped that no socket buffer holds it."""
    system.agent.child.send_signal(signal.SIGSTOP)
    try:
        if what == "routes":
            other_routes(system, "add", BURST)
        elif what == "neighbours":
            labnet.ip_batch((f"neigh replace 10.1.{n >> 8}.{n & 255} lladdr 02:00:00:00:00:{one:02x} dev rt1 nud reachable"
                             for one in range(NEIGHBOUR_ROUNDS) for n in range(2, NEIGHBOURS)), ns=system.vrf.name)
        else:
            overrun_events(system)
    finally:
        system.agent.child.send_signal(signal.SIGCONT)
    system.loop_turns()
    if what == "routes":
        counted(system, "numRtoNetlinkRxErrors", 1)
        other_routes(system, "del", BURST)
        labnet.until(lambda: "kernel-route 60." not in labnet.differences(system.vrf, ("kernel-routes",)), HEAL_SECONDS,
                     "the switch holds the other program's routes as the kernel does")
    elif what == "neighbours":
        counted(system, "numArpReqErrors", 1)
        labnet.ip("neigh", "flush", "dev", "rt1", ns=system.vrf.name)
    return SEEN


def overrun_events(system):
    """The socket's queue, and then that of the switch, which drops it and tells the agent of every interface anew."""
    system.switch.script_in(f"interface set {interface} mtu {1300 + n % 100}" for n in range(EVENTS // LINKS)
                            for interface in system.interfaces)
    client = next(client for client in system.show("clients")
                  if client["pid"] == system.agent.pid and client["kind"] == "router-event")
    if client["unsent"] == 0 or client["unacknowledged"] >= EVENTS:
        raise RuntimeError(f"nothing ran over: {client}")


def memory_limited(system):
    """From before the first probe on, whose task is a thread."""
    system.switch.ctl("ipsla", "stop", "vrf", 3, 1)
    system.agent.spawn()
    labnet.until(system.agent_is_up, HEAL_SECONDS, "the agent has registered")
    system.agent.come_up()
    system.settle()
    pid, limits = system.agent.pid, {"VmSize": resource.RLIMIT_AS, "VmData": resource.RLIMIT_DATA}
    status = pathlib.Path(f"/proc/{pid}/status").read_text()
    for used, limit in limits.items():
        resource.prlimit(pid, limit, (int(re.search(rf"{used}:\s+(\d+)", status)[1]) * 1024, resource.RLIM_INFINITY))
    try:
        other_routes(system, "add", 3000)
        other_routes(system, "del", 3000)
        for number in range(2, 129):
            labnet.orrinctl(*f"ipsla start vrf 3 {number} to 10.1.0.2 frequency 1 size 60000".split())
        system.agent.says("Could not spawn probeAgentTask")
        for _ in range(3):
            system.change()
        time.sleep(1)
    finally:
        for limit in limits.values():
            if system.agent.running():
                resource.prlimit(pid, limit, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    for number in range(2, 129):  # all: the next task comes with the first of the next
        labnet.orrinctl(*f"ipsla stop vrf 3 {number}".split())
    system.switch.ctl("ipsla", "start", *PROBE.split())
    return SEEN


def descriptors_limited(system):
    """No socket and no file can be opened."""
    pid = system.agent.pid
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    held = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (min(set(range(len(held) + 1)) - held), before[1]))
    try:
        for number in range(2, 11):
            labnet.orrinctl(*f"ipsla start vrf 3 {number} to 10.1.0.2 frequency 1".split())
        for _ in range(3):
            system.change()
        time.sleep(1)
    finally:
        if system.agent.running():
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    for number in range(2, 11):
        labnet.orrinctl(*f"ipsla stop vrf 3 {number}".split())


def output_blocked(system):
    """Nobody reads its standard output, which is full; nothing is traced, so nothing may be written there."""
    agent = system.agent
    agent.kill()
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    try:
        while True:
            os.write(writing, bytes(4096))
    except BlockingIOError:
        pass
    os.set_blocking(writing, True)
    with agent.log.open("ab") as log:
        agent.child = subprocess.Popen(agent.command, stdin=subprocess.DEVNULL, stdout=writing, stderr=log,
                                       start_new_session=True)
    os.close(writing)
    agent.traces = False
    pid = agent.pid
    try:
        system.heal()
        for _ in range(3):
            system.change()
        system.heal()
        system.loop_turns()
        if agent.pid != pid:
            raise RuntimeError(f"the agent has ended: {agent.said()[-1000:]}")
        agent.kill()
    finally:
        os.close(reading)
        agent.traces = True
    return "nothing fails"


def wall_clock_set(system, seconds):
    system.set_clocks(wall=seconds)
    system.change()
    time.sleep(1.5)
    labnet.until_mirrored(system.vrf, HEAL_SECONDS)  # without help
    system.loop_turns()
    system.set_clocks()
    return "nothing depends on it"
