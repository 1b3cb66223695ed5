"""What the faults of faults.py strike: a VRF with switch and agent in which something of everything changes, what heals it, and
what a fault leaves to be seen. A second VRF, the default one, has an agent only when a fault asks for it."""

import json
import os
import pathlib
import re
import shutil
import signal
import socket
import struct
import subprocess
import time

import labnet
import walk

LINKS = 3
ROUTES = 2000
HEAL_SECONDS = 60
PENDING_SECONDS = 30
LOOP_SECONDS = 15
EVENT_TIMEOUT = 4  # seconds that orrin waits for an acknowledgement
CLOCKS = "/tmp/clocks"
SANITIZED = "san" in labnet.BIN.parent.name  # the name of the preset
PROBE = "vrf 3 1 to 127.0.0.1 frequency 1"
DEFAULT_ROUTE = "40.0.0.0/24"  # leaves through the VRF's own device
POLICY_CHANGE = 300  # an event that an agent counts, and neither handles nor acknowledges
FATAL, NO_PLATFORM = 0, 2  # the ends of an agent that gives up: a supervisor starts it again

BAD_COUNTER = re.compile(r"Errors|Timeout|Drops|Invalid", re.I)
LOGGED = re.compile(r"^\S+Z \w+ ")
COMPLAINS = re.compile(r"^\S+Z (?:emerg|alert|crit|error|warning|notice) ")
FAILED = re.compile(r"[Ff]ail|[Uu]nable|Error \S+ retrieving")
# What is said without any fault: of an enable that finds its groups joined; of what the switch knows already, such as what it has
# had the agent write; of an agent that was started again and knows no probe yet; of calls that failed half a minute ago or longer.
ORDINARY = re.compile("multicast|existing entry|belongs to a local interface|entry does not exist|not a kernel entry|"
                      "RouteAddVr failed. rc = 6|process restarted|SessionStop does not exist|out of sync with orrin")


class Agent(labnet.Agent):
    """An agent that is started again when it has given up, and that remembers what it has said and counted."""

    def __init__(self, vrf):
        super().__init__(vrf)
        if not SANITIZED:  # their libraries must come first
            self.command = ["env", f"LD_PRELOAD={labnet.BIN / 'set_clocks.so'}", f"SET_CLOCKS={CLOCKS}", *self.command]
        self.traces = True
        self.killed = self.ended = None  # the process of which that is known
        self.exits = []
        self.before = None, {}

    def kill(self, how=signal.SIGKILL, at_most=60):
        if self.running():
            self.killed = self.pid
        super().kill(how, at_most)
        self.end()

    def end(self):
        """Notes how it ended; what neither the agent nor a fault has decided is a crash."""
        status = self.child.returncode
        if self.ended == self.pid or (status == -signal.SIGKILL and self.killed == self.pid):
            return
        if status not in (FATAL, NO_PLATFORM):
            raise RuntimeError(f"{self.name} ended with {status}: {self.said()[-2000:]}")
        self.ended = self.pid
        self.exits.append(status)

    def spawn(self):
        """As a supervisor does; it need not come up."""
        if self.child is not None:
            self.kill()
        labnet.Process.start(self)

    def answers(self):
        if self.child is None or not self.running():
            self.spawn()
        return self.operation("mirelStatsShow").returncode == 0

    def come_up(self):
        labnet.until(self.answers, HEAL_SECONDS, lambda: f"{self.name} answers; it said:\n{self.said()[-2000:]}")
        self.quick()
        if self.traces:  # much that fails is only traced
            self.sh("mirelDebugFlagsSet", 7)
            self.sh("rtoDebugMaskSet", 8)

    def counters(self):
        return json.loads(self.sh("mirelStatsShow", "json")) | json.loads(self.sh("rtoNetlinkStatsShow", "json"))

    def errors(self):
        return {key: count for key, count in self.counters().items() if BAD_COUNTER.search(key)}

    def forget(self):
        """What has been said so far, of which there may be much, and counted."""
        os.truncate(self.log, 0)
        self.exits = []
        self.before = self.pid, self.errors()

    def shown(self):
        """What there is to be seen since then: the way it shows -> an example."""
        if not self.running():
            self.end()
        shown = {"exit": status for status in self.exits}
        if self.running() and self.operation("mirelStatsShow").returncode == 0:
            pid, before = self.before
            grown = [key for key, count in self.errors().items() if count > (before.get(key, 0) if pid == self.pid else 0)]
            shown |= {"counter": key for key in grown}
        for line in self.said().splitlines():
            if ORDINARY.search(line):
                continue
            if COMPLAINS.search(line) or (LOGGED.search(line) and FAILED.search(line)):
                shown["log"] = line
            elif FAILED.search(line):
                shown["trace"] = line
        return shown

    def knows_device(self, interface, device):
        return json.loads(self.sh("mirelIntIfInfoShow", interface, "json")).get("stkIfName") == device

    def says(self, text):
        labnet.until(lambda: text in self.said(), HEAL_SECONDS, lambda: f"{self.name} says '{text}': {self.said()[-1000:]}")


class System:
    def __init__(self, dice):
        self.dice = dice
        self.clocks = [0, 0]  # wall, and that which nobody sets
        self.set_clocks()
        self.vrf, self.default_vrf = walk.make_vrf(3, "blue"), walk.make_vrf(0, "default")
        labnet.add_tunnel_devices(self.vrf)
        self.interfaces = [labnet.interface_of(self.vrf, number) for number in range(1, LINKS + 1)]
        learned = [f"arp learn vrf 3 10.{number}.0.66 mac 02:00:00:00:00:66 interface {labnet.interface_of(self.vrf, number)}"
                   for number in range(1, LINKS + 1)]
        self.switch = labnet.Switch(["keepalive period 1", f"event timeout {EVENT_TIMEOUT}", *labnet.vrf_script(self.vrf, LINKS),
                                     *labnet.vrf_script(self.default_vrf, 1), *learned, *self.routes("add", 1),
                                     f"ipsla start {PROBE}", "vrf set 3 routing on", "vrf set 0 routing on"])
        self.switch.start()
        self.switch_killed = None
        self.questions = self.socket_in_vrf()
        self.agent, self.default_agent = Agent(self.vrf), Agent(self.default_vrf)
        self.probed = None  # the process in which the probe was started
        self.agent.come_up()
        self.heal()

    def socket_in_vrf(self):
        with open("/proc/self/ns/net") as home, open(f"/run/netns/{self.vrf.name}") as there:
            labnet.enter_netns(there.fileno())
            try:
                return socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
            finally:
                labnet.enter_netns(home.fileno())

    def close(self):
        """What a failure leaves: another system begins with nothing."""
        for process in (self.agent, self.default_agent, self.switch):
            if process.child is not None:
                labnet.Process.kill(process)
        self.questions.close()
        for vrf in (self.vrf, self.default_vrf):
            labnet.ip("netns", "del", vrf.name)
        for left in ("/run/orrin", "/run/qvproc"):
            shutil.rmtree(left, ignore_errors=True)
        for log in pathlib.Path("/tmp").glob("*.log"):
            log.unlink()

    # What happens all the time ----------------------------------------------------------------------------------------

    def way(self, number):
        return f"via 10.{number}.0.{self.dice.randint(2, 9)} interface {labnet.interface_of(self.vrf, number)}"

    def routes(self, verb, number, count=ROUTES):
        way = self.way(number)
        return [f"routes {verb} vrf 3 20.0.0.0/24 count {count} {way}", f"route {verb} vrf 3 {DEFAULT_ROUTE} via-vrf-device {way}"]

    def change(self):
        """Some of everything, so that each platform call is made."""
        interface = self.dice.choice(self.interfaces)
        number = interface % 100
        if self.switch.running():
            self.switch.script_in([
                f"interface set {interface} mtu {self.dice.randint(1280, 1500)} bandwidth {self.dice.randint(1, 10) * 1000}",
                *(f"interface set {interface} {mode} {value}" for mode in ("redirects", "unreachables") for value in (0, 1)),
                f"interface secondary {interface} add 10.{100 + number}.0.1/24",
                f"vrf set 3 icmp-ratelimit {self.dice.randint(1, 100)} 1000",
                "vrf set 3 icmp-echo-reply 0", "vrf set 3 icmp-echo-reply 1",
                f"interface enable {interface}", *self.routes("modify", number, ROUTES // 10),
                f"arp learn vrf 3 10.{number}.0.77 mac 02:00:00:00:00:77 interface {interface}",
                f"interface secondary {interface} del 10.{100 + number}.0.1/24"])
        self.change_kernel(number)

    def change_kernel(self, number):
        """What other programs do; the devices may be away."""
        lines = ["route replace 192.0.2.0/24 dev rt1", "route del 192.0.2.0/24", "route replace 2001:db8::/64 dev rt1",
                 "route del 2001:db8::/64 dev rt1", "neigh replace 10.1.0.99 lladdr 02:00:00:00:00:99 dev rt1",
                 "neigh del 10.1.0.99 dev rt1", f"neigh del 10.{number}.0.66 dev rt{number}"]
        subprocess.run(["ip", "-n", self.vrf.name, "-force", "-batch", "-"], input="\n".join(lines), text=True,
                       capture_output=True)
        try:
            self.questions.sendto(b"", (f"10.{number}.0.66", 9))  # its kernel asks for the neighbour it has just forgotten
        except OSError:
            pass

    def set_clocks(self, wall=0, monotonic=0):
        """The latter is put forward, and never back."""
        self.clocks = [wall, self.clocks[1] + monotonic]
        if not os.path.exists(CLOCKS):
            pathlib.Path(CLOCKS).touch()
        with open(CLOCKS, "r+b") as clocks:  # which agents have mapped
            clocks.write(struct.pack("=qq", *self.clocks))

    # What heals -------------------------------------------------------------------------------------------------------

    def kill_switch(self):
        self.switch_killed = self.switch.pid
        self.switch.kill()

    def revive_switch(self):
        if self.switch.running():
            return
        if self.switch.child.returncode != -signal.SIGKILL or self.switch_killed != self.switch.pid:
            raise RuntimeError(f"the switch ended with {self.switch.child.returncode}: {self.switch.said()[-2000:]}")
        self.switch.start()

    def heal(self):
        """What a real switch does once, after each fault."""
        self.revive_switch()
        self.switch.ctl("fault", "clear")
        self.agent.come_up()
        labnet.until(self.agent_is_up, HEAL_SECONDS, lambda: f"the agent has registered: {self.switch.ctl('show', 'clients')}")
        self.agent.come_up()
        self.start_probe()
        self.settle()
        self.switch.script_in([*(f"interface enable {interface}" for interface in self.interfaces), *self.routes("modify", 1)])
        labnet.until_mirrored(self.vrf, HEAL_SECONDS)

    def start_probe(self):
        """In a new agent, as the lab does; the fault may have started it there already, and a second start is refused."""
        if self.probed != self.agent.pid:
            labnet.orrinctl("ipsla", "stop", "vrf", 3, 1)
            labnet.until(lambda: labnet.orrinctl("ipsla", "start", *PROBE.split()).returncode == 0, HEAL_SECONDS,
                         "the agent takes the probe")
            self.probed = self.agent.pid

    def settle(self):
        """Until the agent has handled what was sent before, and no interface is on its way up or down: the switch has no ear for an
        enable of one that is."""
        self.loop_turns()
        labnet.until(lambda: all(row["state"] in ("up", "down") for row in self.show("interfaces")), PENDING_SECONDS,
                     lambda: f"no interface is pending: {self.switch.ctl('show', 'interfaces')}")

    def show(self, what):
        return json.loads(self.switch.ctl("show", what, "json"))

    def agent_is_up(self):
        """Both of its clients are registered: a switch sends no event again to one that was never there."""
        if not self.agent.answers():
            return False
        clients = [client for client in self.show("clients") if client["pid"] == self.agent.pid and client["state"] == "registered"]
        return {client["kind"] for client in clients} >= {"best-route", "router-event"}

    def loop_turns(self):
        """An event that is sent now is taken, behind all that were sent before."""
        def taken():
            return json.loads(self.agent.sh("mirelEventCountShow", POLICY_CHANGE, "json"))["count"]
        before = taken()
        self.switch.ctl("event", "send", "vrf", 3, "type", POLICY_CHANGE)
        labnet.until(lambda: taken() > before, LOOP_SECONDS, "the agent's loop turns")

    def loop_turns_or_ends(self):
        """What the agent was about is over."""
        try:
            self.loop_turns()
        except (RuntimeError, TimeoutError, subprocess.SubprocessError):
            labnet.until(lambda: not self.agent.running(), LOOP_SECONDS, "the agent's loop turns, or it ends")
