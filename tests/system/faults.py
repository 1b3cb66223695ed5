#!/usr/bin/python3
"""Faults, one after the other in an order that the seed decides, each while interfaces and routes change: killed agents and
switches, platform calls that fail, a kernel that refuses, overruns, no memory, a clock that is set. After each the switch does
once what a real one would do: it starts what has ended, enables the interfaces again, sends the routes again. Then the kernel must
be what the switch holds, the agent's loop must turn, and the fault must have left a trace in a counter, a log or an exit.

    tests/system/faults.py [--seed N] [--share 1.0] [--only NAME]

--share takes only so large a part of each kind of fault.
"""

import argparse
import json
import os
import pathlib
import random
import re
import resource
import signal
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import labnet  # noqa: E402
import walk  # noqa: E402

LINKS = 3
ROUTES = 2000
BURST = 40000
HEAL_SECONDS = 60
LOOP_SECONDS = 15
STOP_SECONDS = 40  # longer than the event timeout of orrin
CODES = {"LOCAL_ADDR": -21, "INVALID": -22, "FULL": -23, "EXISTS": -24, "REFUSED": -25, "FAILURE": -26, "NOT_YET": -28,
         "NOT_FOUND": -29, "NO_MORE": -30, "unknown": -99}
WALL_CLOCK = "/tmp/wall-clock"
COMPLAINT = re.compile(r"^\S+Z (?:emerg|alert|crit|error|warning|notice) |[Ff]ailed|[Uu]nable")
ENDS = 0, 2, -signal.SIGKILL  # fatal, no platform, and what is done to it here: a supervisor starts the agent again
ONCE, FOR_A_WHILE = "times 1", "times 1000000"


class System:
    """One VRF and what has to be known to heal it."""

    def __init__(self, dice):
        self.dice = dice
        self.vrf = walk.make_vrf(3, "blue")
        self.interfaces = [labnet.interface_of(self.vrf, number) for number in range(1, LINKS + 1)]
        self.switch = labnet.Switch(["keepalive period 1", "event timeout 10", *labnet.vrf_script(self.vrf, LINKS),
                                     f"routes add vrf 3 20.0.0.0/24 count {ROUTES} {self.way(1)}", "vrf set 3 routing on"])
        self.switch.start()
        pathlib.Path(WALL_CLOCK).write_bytes(struct.pack("=q", 0))
        self.agent = labnet.Agent(self.vrf)
        self.agent.command = ["env", f"LD_PRELOAD={labnet.BIN / 'wall_clock.so'}", f"WALL_CLOCK={WALL_CLOCK}",
                              *self.agent.command]
        self.start_agent()
        labnet.until_mirrored(self.vrf, HEAL_SECONDS)

    def way(self, number):
        return f"via 10.{number}.0.{self.dice.randint(2, 9)} interface {labnet.interface_of(self.vrf, number)}"

    def start_agent(self):
        self.agent.start()
        self.agent.quick()
        self.trace()

    def trace(self):
        """Much that fails is only traced."""
        self.agent.sh("mirelDebugFlagsSet", 7)
        self.agent.sh("rtoDebugMaskSet", 8)

    def change(self):
        """Some of everything, so that each platform call is made."""
        interface = self.dice.choice(self.interfaces)
        number = interface % 100
        lines = [f"interface set {interface} mtu {self.dice.randint(1280, 1500)} redirects {self.dice.randint(0, 1)} "
                 f"unreachables {self.dice.randint(0, 1)} bandwidth {self.dice.randint(1, 10) * 1000}",
                 f"interface secondary {interface} add 10.{100 + number}.0.1/24",
                 f"vrf set 3 icmp-ratelimit {self.dice.randint(1, 100)} 1000",
                 f"vrf set 3 icmp-echo-reply {self.dice.randint(0, 1)}",
                 f"interface enable {interface}",
                 f"routes modify vrf 3 20.0.0.0/24 count {ROUTES // 10} {self.way(number)}",
                 f"arp learn vrf 3 10.{number}.0.77 mac 02:00:00:00:00:77 interface {interface}",
                 f"interface secondary {interface} del 10.{100 + number}.0.1/24"]
        if self.switch.running():
            for line in lines:
                labnet.orrinctl(*line.split())
        for words in (("route", "replace", "192.0.2.0/24", "dev", "rt1"), ("route", "del", "192.0.2.0/24"),
                      ("neigh", "replace", "10.1.0.99", "lladdr", "02:00:00:00:00:99", "dev", "rt1"),
                      ("neigh", "del", "10.1.0.99", "dev", "rt1")):
            subprocess.run(["ip", "-n", self.vrf.name, *words], capture_output=True)

    def heal(self):
        if not self.switch.running():
            self.switch.start()
        self.switch.ctl("fault", "clear")
        labnet.until(self.agent_answers, HEAL_SECONDS, lambda: f"the agent answers; it said:\n{self.agent.said()[-2000:]}")
        self.agent.quick()
        self.trace()
        labnet.until(self.agent_is_up, HEAL_SECONDS, "the agent has registered")
        self.switch.script_in([*(f"interface enable {interface}" for interface in self.interfaces),
                               f"routes modify vrf 3 20.0.0.0/24 count {ROUTES} {self.way(1)}"])
        labnet.until_mirrored(self.vrf, HEAL_SECONDS)

    def agent_answers(self):
        if not self.agent.running():
            if self.agent.child.returncode not in ENDS:
                raise RuntimeError(f"the agent ended with {self.agent.child.returncode}: {self.agent.said()[-2000:]}")
            labnet.Process.start(self.agent)
        return self.agent.operation("mirelStatsShow").returncode == 0

    def agent_is_up(self):
        """Both of its clients are registered: a switch sends no event again to one that was never there."""
        if not self.agent_answers():
            return False
        clients = json.loads(self.switch.ctl("show", "clients", "json"))
        return {client["kind"] for client in clients if client["state"] == "registered"} >= {"best-route", "router-event"}

    def loop_turns(self):
        """Keep-alives of the switch, one a second, are taken."""
        def taken():
            return re.search(r"rppi_evnt_keepalive_time +: (\d+)", self.agent.sh("mirelRouterEventClientShow"))[1]
        before = taken()
        labnet.until(lambda: taken() != before, LOOP_SECONDS, "the agent's loop turns")

    def traces(self):
        """What a fault may change: error counters, complaints in the log, which process runs."""
        done = self.agent.operation("mirelStatsShow") if self.agent.running() else None
        more = self.agent.operation("rtoNetlinkStatsShow") if self.agent.running() else None
        errors = re.findall(r"((?:[\w ]*Errors?|errors):\s+\d+)", done.stdout if done else "")
        return errors, re.findall(r"(?:drop|error|unsuccess|invalid)[^:\n]*: \d+", more.stdout if more else ""), \
            self.complaints(), self.agent.pid, self.agent.running(), self.switch.pid

    def complaints(self):
        """Of the log and of the traces, without those of an enable that finds everything in place."""
        lines = self.agent.said().splitlines()
        return sum(bool(COMPLAINT.search(line)) and "multicast" not in line for line in lines)

    def forget(self):
        """What has been said so far, of which there may be much."""
        os.truncate(self.agent.log, 0)


# Faults --------------------------------------------------------------------------------------------------------------
# Each is a generator: it strikes, and yields True when a trace must have been left, else why none is to be expected.


def agent_killed(system, moment):
    if moment == "start-up":
        system.agent.kill()
        labnet.Process.start(system.agent)
        time.sleep(system.dice.uniform(0, 0.06))
    elif moment == "drain":
        system.switch.ctl(*f"routes modify vrf 3 20.0.0.0/24 count {ROUTES} {system.way(2)}".split())
        time.sleep(system.dice.uniform(0, 0.03))
    elif moment == "enable":
        system.switch.script_in(line for interface in system.interfaces
                                for line in (f"interface disable {interface}", f"interface enable {interface}"))
        time.sleep(system.dice.uniform(0, 0.1))
    else:  # replay
        system.agent.kill()
        system.agent.start()
        system.switch.script_in(f"interface enable {interface}" for interface in system.interfaces)
        time.sleep(system.dice.uniform(0, 0.05))
    system.agent.kill()
    system.change()
    return True


def switch_killed(system, also_agent):
    system.change()
    system.switch.kill()
    if also_agent:
        system.agent.kill()
    time.sleep(system.dice.uniform(0, 2))
    return True


def switch_stopped(system, seconds):
    system.switch.child.send_signal(signal.SIGSTOP)
    try:
        for words in (("route", "replace", "192.0.2.0/24", "dev", "rt1"), ("route", "del", "192.0.2.0/24")):
            labnet.ip(*words, ns=system.vrf.name)
        time.sleep(seconds)
    finally:
        system.switch.child.send_signal(signal.SIGCONT)
    system.change()
    return "short stops are waited out" if seconds < 10 else True


def call_fails(system, call, code, how):
    restarts = call in START_CALLS
    system.switch.ctl("fault", "set", call, "result", CODES[code], *how.split())
    if restarts:
        system.agent.kill()
        labnet.Process.start(system.agent)
        time.sleep(0.5)
    system.change()
    if how != ONCE:
        system.change()
    time.sleep(0.2)
    passed_over = PASSED_OVER.get(call) or PASSED_OVER.get((call, code))
    return passed_over or was_made(system, call, how) or "the call was not made"


def was_made(system, call, how):
    """A fault that has struck so often as it was to is gone; the others say how often they still will."""
    left = {row["call"]: row["times"] for row in json.loads(system.switch.ctl("show", "faults", "json"))}
    left = next((times for name, times in left.items() if name.endswith(call)), 0)
    return left < int(how.split()[1])


def device_gone(system, how):
    vrf, dice = system.vrf, system.dice
    number = dice.randint(1, LINKS)
    if how == "deleted":
        labnet.ip("link", "del", f"rt{number}", ns=vrf.name)
    elif how == "renamed":
        labnet.ip_batch([f"link set rt{number} down", f"link set rt{number} name other"], ns=vrf.name)
    else:
        labnet.ip("link", "set", f"rt{number}", "down", ns=vrf.name)
    for interface in system.interfaces:
        system.switch.ctl("interface", "enable", interface)
    system.switch.ctl(*f"routes modify vrf 3 20.0.0.0/24 count {ROUTES} {system.way(number)}".split())
    time.sleep(1)
    if how == "deleted":
        labnet.ip(*f"link add link base name rt{number} type macvlan mode bridge".split(), ns=vrf.name)
    elif how == "renamed":
        labnet.ip("link", "set", "other", "name", f"rt{number}", ns=vrf.name)
    return "an enable sets it up again" if how == "down" else True


def gateway_refused(system):
    """The kernel takes no broadcast address as a gateway."""
    system.switch.ctl(*"routes add vrf 3 50.0.0.0/24 count 50 via 10.2.0.255 interface 302".split())
    time.sleep(1)
    system.switch.ctl(*"routes del vrf 3 50.0.0.0/24 count 50".split())
    return True


def switch_table_full(system):
    system.switch.ctl("vrf", "set", 3, "kernel-routes", 5)
    labnet.run(*labnet.in_netns(system.vrf.name, labnet.BIN / "route_raw", "add", "60.0.0.0/24", 200, "via", "10.1.0.2", "dev",
                                "rt1", "proto", 4))
    time.sleep(0.5)
    system.switch.ctl("vrf", "set", 3, "kernel-routes", 1000000)
    labnet.run(*labnet.in_netns(system.vrf.name, labnet.BIN / "route_raw", "del", "60.0.0.0/24", 200, "via", "10.1.0.2", "dev",
                                "rt1", "proto", 4))
    return True


def overrun(system, what):
    """So much happens while the agent is stopped that no socket buffer holds it."""
    system.agent.child.send_signal(signal.SIGSTOP)
    raw = labnet.in_netns(system.vrf.name, labnet.BIN / "route_raw")
    try:
        if what == "routes":
            labnet.run(*raw, "add", "60.0.0.0/24", BURST, "via", "10.1.0.2", "dev", "rt1", "proto", 4)
        elif what == "neighbours":
            labnet.ip_batch([f"neigh replace 10.1.{n >> 8}.{n & 255} lladdr 02:00:00:00:00:99 dev rt1 nud reachable"
                             for n in range(2, 600)] * 4, ns=system.vrf.name)
        else:
            system.switch.script_in(f"interface set {interface} mtu {1300 + n % 100}" for n in range(1000)
                                    for interface in system.interfaces)
    finally:
        system.agent.child.send_signal(signal.SIGCONT)
    if what == "routes":
        time.sleep(3)
        labnet.run(*raw, "del", "60.0.0.0/24", BURST, "via", "10.1.0.2", "dev", "rt1", "proto", 4)
        return True
    if what == "neighbours":
        labnet.ip("neigh", "flush", "dev", "rt1", ns=system.vrf.name)
    return "the switch keeps what the agent does not take" if what == "events" else "entries are asked for when they are used"


def memory_limited(system):
    pid = system.agent.pid
    used = int(re.search(r"VmSize:\s+(\d+)", pathlib.Path(f"/proc/{pid}/status").read_text())[1]) * 1024
    resource.prlimit(pid, resource.RLIMIT_AS, (used, resource.RLIM_INFINITY))
    try:
        for number in range(1, 129):
            labnet.orrinctl(*f"ipsla start vrf 3 {number} to 10.1.0.2 frequency 1 size 60000".split())
        for _ in range(3):
            system.change()
        time.sleep(1)
    finally:
        if system.agent.running():
            resource.prlimit(pid, resource.RLIMIT_AS, (resource.RLIM_INFINITY, resource.RLIM_INFINITY))
    for number in range(1, 129):
        labnet.orrinctl(*f"ipsla stop vrf 3 {number}".split())
    return True


def descriptors_limited(system):
    """No socket and no file can be opened."""
    pid = system.agent.pid
    before = resource.prlimit(pid, resource.RLIMIT_NOFILE)
    held = {int(name) for name in os.listdir(f"/proc/{pid}/fd")}
    resource.prlimit(pid, resource.RLIMIT_NOFILE, (min(set(range(len(held) + 1)) - held), before[1]))
    try:
        for number in range(1, 11):
            labnet.orrinctl(*f"ipsla start vrf 3 {number} to 10.1.0.2 frequency 1".split())
        for _ in range(3):
            system.change()
        time.sleep(1)
    finally:
        if system.agent.running():
            resource.prlimit(pid, resource.RLIMIT_NOFILE, before)
    for number in range(1, 11):
        labnet.orrinctl(*f"ipsla stop vrf 3 {number}".split())
    return True


def output_blocked(system):
    """Nobody reads its standard output, which is full; nothing is traced, so nothing may be written there."""
    system.trace = lambda: None
    system.agent.kill()
    reading, writing = os.pipe()
    os.set_blocking(writing, False)
    try:
        while True:
            os.write(writing, bytes(4096))
    except BlockingIOError:
        pass
    os.set_blocking(writing, True)
    with system.agent.log.open("ab") as log:
        system.agent.child = subprocess.Popen(system.agent.command, stdin=subprocess.DEVNULL, stdout=writing, stderr=log,
                                              start_new_session=True)
    os.close(writing)
    try:
        labnet.until(system.agent_is_up, HEAL_SECONDS, "the agent starts")
        for _ in range(3):
            system.change()
        system.heal()
        system.loop_turns()
        system.agent.kill()
    finally:
        os.close(reading)
        del system.trace
    return True


def clock_set(system, seconds):
    pathlib.Path(WALL_CLOCK).write_bytes(struct.pack("=q", seconds))
    system.change()
    time.sleep(1.5)
    labnet.until_mirrored(system.vrf, HEAL_SECONDS)  # without help
    system.loop_turns()
    pathlib.Path(WALL_CLOCK).write_bytes(struct.pack("=q", 0))
    return "nothing depends on it"


# Calls that only an agent's start makes.
START_CALLS = ("ServiceClientRegister", "ConnectivityCheck", "SystemReadyStateGet", "VrfNameGet", "VrfIntfNameGet",
               "RoutingStartupStatusVr", "RouterEventRegister", "RtrIntfNextGetVrf", "BestRouteEventRegisterVr",
               "RoutingProtocolRegister", "RouteTypeRegister")
RUN_CALLS = ("RtrICMPRatelimitGet", "RtrICMPEchoReplyModeGet", "RouterEventAcknowledge", "RtrIntfTypeGet", "RtrIntfNameGet",
             "RtrIntfIpStackStkNameGet", "RtrIntfIpStackIfNameGet", "RtrIntfIpStackIfIndexGet", "RtrIntfL3MacAddressGet",
             "RtrIntfIpAddrGet", "RtrIntfSecIpAddrGet", "IntfIpMtuGet", "IntfBandwidthGet", "RtrICMPUnreachablesModeGet",
             "RtrICMPRedirectsModeGet", "ServicePortGatewayIPv4AddrGet", "NetworkPortGatewayIPv4AddrGet", "KernelArpAdd",
             "KernelArpDelete", "StackIfIndexIntIfNumGet", "BestRouteChangeNextGetMult", "IntfBestRoutesNextGet",
             "KernelRouteAddVr", "KernelRouteDelVr")
# What the agent passes over by design, by call, or by call and code.
PASSED_OVER = {
    "RouterEventAcknowledge": "the switch stops waiting for it by itself",
    "BestRouteChangeNextGetMult": "the next poll fetches the same again",
    "IntfBestRoutesNextGet": "the interface's next enable fetches the same again",
    "ServicePortGatewayIPv4AddrGet": "as good as no such port",
    "NetworkPortGatewayIPv4AddrGet": "as good as no such port",
    ("KernelRouteAddVr", "EXISTS"): "it is there",
    **{("KernelRouteDelVr", code): "it is not the agent's" for code in CODES if code not in ("FAILURE", "EXISTS", "FULL")},
}


def all_faults():
    rows = [(agent_killed, moment) for moment in ("start-up", "drain", "enable", "replay") for _ in range(3)]
    rows += [(switch_killed, False), (switch_killed, True), (switch_stopped, 2), (switch_stopped, STOP_SECONDS)]
    rows += [(call_fails, call, code, how) for call in (*START_CALLS, *RUN_CALLS) for code in CODES
             for how in (ONCE, FOR_A_WHILE)]
    rows += [(device_gone, how) for how in ("deleted", "renamed", "down")]
    rows += [(gateway_refused,), (switch_table_full,), (memory_limited,), (descriptors_limited,), (output_blocked,)]
    rows += [(overrun, what) for what in ("routes", "neighbours", "events")]
    rows += [(clock_set, seconds) for seconds in (-86400, 1, 3600, 86400 * 365)]
    return rows


def chosen(share, only, dice):
    """At least one of each kind."""
    kinds = {}
    for fault, *arguments in all_faults():
        if only in (None, fault.__name__):
            kinds.setdefault(fault, []).append(arguments)
    picked = [(fault, *arguments) for fault, variants in kinds.items()
              for arguments in dice.sample(variants, max(1, round(share * len(variants))))]
    dice.shuffle(picked)
    return picked


def strike(system, fault, arguments, say):
    name = " ".join(map(str, (fault.__name__, *arguments)))
    system.forget()
    began, before = time.monotonic(), system.traces()
    expected = fault(system, *arguments)
    left = system.traces() != before
    system.heal()
    system.loop_turns()
    reason = "" if left else "; no trace" if expected is True else f"; no trace: {expected}"
    say(f"{name}: healed after {time.monotonic() - began:.1f} s{reason}")
    return name if reason == "; no trace" else None


def run(share, seed, only, say, without=()):
    dice = random.Random(seed)
    system = System(dice)
    silent = [name for fault, *arguments in chosen(share, only, dice) if fault not in without and (name := strike(system, fault, arguments, say))]
    if silent:
        raise RuntimeError("no trace in a counter or a log: " + "; ".join(silent))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    parser.add_argument("--share", type=float, default=1.0)
    parser.add_argument("--only", metavar="NAME", help="one kind of fault")
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    sandbox = labnet.start_sandbox(lambda: run(options.share, options.seed, options.only, lambda text: print(text, flush=True)))
    return os.waitstatus_to_exitcode(os.waitpid(sandbox, 0)[1])


if __name__ == "__main__":
    sys.exit(main())
