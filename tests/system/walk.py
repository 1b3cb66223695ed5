#!/usr/bin/python3
"""A random walk: interfaces and routes of two VRFs change at random while agents and the switch are killed now and then, and
in the end every kernel is what the switch holds. The seed is printed and gives the same walk again.

    tests/system/walk.py [--changes 2000] [--seed N]
"""

import argparse
import os
import pathlib
import random
import signal
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import labnet  # noqa: E402

LINKS = 6
PREFIXES = 200
CHECK_EVERY = 100
SETTLE_SECONDS = 60


def make_vrf(vrf_id, name):
    """Devices rt1 ... that hang on a bridge: a link that is always there, and nobody at its other end."""
    vrf = labnet.make_vrf(vrf_id, name, links=0)
    labnet.ip_batch(["link add base type bridge", "link set base up",
                     *(f"link add link base name rt{n} type macvlan mode bridge" for n in range(1, LINKS + 1))], ns=name)
    return vrf


class Walk:
    """Makes up changes that the switch accepts, one after the other; it knows only what it needs for that."""

    def __init__(self, vrfs, dice):
        self.vrfs = vrfs
        self.dice = dice
        self.enabled = {labnet.interface_of(vrf, n) for vrf in vrfs for n in range(1, LINKS + 1)}
        self.secondaries = {}  # interface -> prefixes
        self.vrrp = {}  # interface -> (label, address)
        self.routes = {vrf.id: set() for vrf in vrfs}
        self.routing = {vrf.id: True for vrf in vrfs}
        self.kinds = [(self.mtu, 3), (self.mac, 1), (self.primary, 2), (self.secondary, 4), (self.virtual, 3),
                      (self.modes, 2), (self.up_or_down, 8), (self.again, 1), (self.host_mode, 1), (self.vrf_wide, 1),
                      (self.routing_switch, 1), (self.route, 20), (self.many_routes, 4), (self.withdraw, 10)]

    def next(self):
        kinds, weights = zip(*self.kinds)
        return self.dice.choices(kinds, weights)[0]()

    def pick(self):
        vrf, number = self.dice.choice(self.vrfs), self.dice.randint(1, LINKS)
        return vrf, number, labnet.interface_of(vrf, number)

    def mtu(self):
        return f"interface set {self.pick()[2]} mtu {self.dice.randint(1280, 1500)}"

    def mac(self):
        _, _, interface = self.pick()
        tail = f"{self.dice.randint(0, 255):02x}:{interface >> 8:02x}:{interface & 255:02x}"
        return f"interface set {interface} mac 02:00:00:{tail}"

    def primary(self):
        _, number, interface = self.pick()
        return f"interface set {interface} address 10.{number}.0.1/{self.dice.choice((22, 23, 24, 25))}"

    def secondary(self):
        _, number, interface = self.pick()
        held = self.secondaries.setdefault(interface, set())
        prefix = f"10.{100 + number}.{self.dice.randint(0, 3)}.{self.dice.randint(1, 3)}/24"
        verb = "del" if prefix in held else "add"
        held ^= {prefix}
        return f"interface secondary {interface} {verb} {prefix}"

    def virtual(self):
        _, number, interface = self.pick()
        held = self.vrrp.setdefault(interface, set())
        label, address = self.dice.randint(1, 3), f"10.{number}.0.{self.dice.randint(100, 103)}"
        if (label, address) in held:
            held.remove((label, address))
            return f"interface vrrp {interface} label {label} del {address}"
        if any(address == other for _, other in held):
            return self.next()  # one address is not held under two labels
        held.add((label, address))
        return f"interface vrrp {interface} label {label} add {address}"

    def modes(self):
        return f"interface set {self.pick()[2]} redirects {self.dice.randint(0, 1)} unreachables {self.dice.randint(0, 1)}"

    def up_or_down(self):
        _, _, interface = self.pick()
        self.enabled ^= {interface}
        return f"interface {'enable' if interface in self.enabled else 'disable'} {interface}"

    def again(self):
        return f"interface enable {self.dice.choice(sorted(self.enabled))}" if self.enabled else self.next()

    def host_mode(self):
        return f"interface host-mode {self.pick()[2]}"

    def vrf_wide(self):
        vrf, _, _ = self.pick()
        rate_limit = f"icmp-ratelimit {self.dice.randint(1, 100)} {self.dice.randint(0, 2000)}"
        return f"vrf set {vrf.id} {self.dice.choice((rate_limit, f'icmp-echo-reply {self.dice.randint(0, 1)}'))}"

    def routing_switch(self):
        vrf, _, _ = self.pick()
        self.routing[vrf.id] = not self.routing[vrf.id]
        return f"vrf set {vrf.id} routing {'on' if self.routing[vrf.id] else 'off'}"

    def way(self, vrf):
        if self.dice.random() < 0.1:
            return "reject"
        links = self.dice.sample(range(1, LINKS + 1), self.dice.choice((1, 1, 1, 2, 3)))
        hops = [(number, self.dice.randint(2, 9)) for number in links]
        return " ".join(f"via 10.{number}.0.{last} interface {labnet.interface_of(vrf, number)}" for number, last in hops)

    def route(self):
        vrf, _, _ = self.pick()
        which = self.dice.randrange(PREFIXES)
        verb = "modify" if which in self.routes[vrf.id] else "add"
        self.routes[vrf.id].add(which)
        return f"route {verb} vrf {vrf.id} 20.0.{which}.0/24 {self.way(vrf)}"

    def many_routes(self):
        vrf, _, _ = self.pick()
        verb = "add" if self.dice.random() < 0.6 else "del"
        way = f" {self.way(vrf)}" if verb == "add" else ""
        return f"routes {verb} vrf {vrf.id} 30.{self.dice.randint(0, 3)}.0.0/28 count 200{way}"

    def withdraw(self):
        vrf, _, _ = self.pick()
        held = self.routes[vrf.id]
        if not held:
            return self.route()
        which = self.dice.choice(sorted(held))
        held.remove(which)
        return f"route del vrf {vrf.id} 20.0.{which}.0/24"


class Blows:
    """Kills and restarts, at moments that the dice choose."""

    def __init__(self, switch, agents, dice):
        self.switch, self.agents, self.dice = switch, agents, dice

    def one(self):
        victims = self.dice.choice((self.agents[:1], self.agents[1:], self.agents, [self.switch],
                                    [self.switch, *self.agents]))
        for process in victims:
            process.kill(signal.SIGKILL)
        return victims

    def revive(self, victims):
        for process in victims:
            process.start()
            if process is not self.switch:
                process.quick()
        return " and ".join(process.name for process in victims)


def start_two():
    """Two VRFs, the switch and their agents."""
    vrfs = [make_vrf(3, "blue"), make_vrf(4, "red")]
    script = [line for vrf in vrfs for line in (*labnet.vrf_script(vrf, LINKS), f"vrf set {vrf.id} routing on")]
    switch = labnet.Switch(["keepalive period 1", "event timeout 10", *script])
    switch.start()
    agents = [labnet.Agent(vrf) for vrf in vrfs]
    for agent in agents:
        agent.start()
        agent.quick()
    return vrfs, switch, agents


def walk(changes, seed, say):
    dice = random.Random(seed)
    vrfs, switch, agents = start_two()
    steps, blows = Walk(vrfs, dice), Blows(switch, agents, dice)
    down, back_at = [], 0
    for number in range(1, changes + 1):
        if down and number >= back_at:
            say(f"{number}: {blows.revive(down)} back")
            down = []
        elif not down and dice.random() < 0.02:
            down, back_at = blows.one(), number + dice.randint(0, 20)
        supervise(agents, down, say)
        if switch not in down:
            change(switch, steps.next())
        if number % CHECK_EVERY == 0 and not down:
            check(agents, steps, number, say)
    blows.revive(down)
    for vrf in vrfs:
        change(switch, f"vrf set {vrf.id} routing on")
        steps.routing[vrf.id] = True
    check(agents, steps, changes, say)


def supervise(agents, down, say):
    """Starts an agent again that has ended itself, as it does with status 0 when it cannot register with the switch."""
    for agent in agents:
        if agent not in down and not agent.running():
            if agent.child.returncode != 0:
                raise RuntimeError(f"{agent.name} ended with {agent.child.returncode}: {agent.said()}")
            say(f"{agent.name} ended itself; started again")
            agent.start()
            agent.quick()


def change(switch, command):
    done = labnet.orrinctl(*command.split())
    refused = "interface host-mode", "interface disable", "routes "  # as the state of the moment allows
    if done.returncode != 0 and not command.startswith(refused):
        raise RuntimeError(f"{command}: {done.stderr}")


def check(agents, steps, number, say):
    started = time.monotonic()
    for agent in agents:
        if steps.routing[agent.vrf.id]:  # else it may be waiting for routing, as long as that takes
            labnet.until(lambda: mirrored(agent.vrf, agents, say), SETTLE_SECONDS,
                         lambda: f"VRF {agent.vrf.id} is mirrored; still different:\n{different(agent.vrf)}")
    say(f"{number}: the kernels mirror the switch, after {time.monotonic() - started:.1f} s")


def mirrored(vrf, agents, say):
    supervise(agents, [], say)  # an agent that was starting when the switch was killed ends itself only now
    return not different(vrf)


def different(vrf):
    return labnet.differences(vrf, ("interfaces", "routes"))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--changes", type=int, default=2000)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    return labnet.run_in_sandbox("walk", lambda: walk(options.changes, options.seed, lambda text: print(text, flush=True)))


if __name__ == "__main__":
    sys.exit(main())
