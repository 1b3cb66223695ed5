#!/usr/bin/python3
"""A soak: for a long time interfaces, routes, neighbours, other programs' routes and probes change at random, agents and switch
are left alone: the same processes are there in the end, and nothing of them has grown, no descriptor, no thread, no memory. Then
every kernel is what the switch holds, and the switch knows what the kernels hold of other programs' routes and of neighbours. Each
probe has been reported. The first tenth is for warming up. The seed is printed and gives the same changes again.

    tests/system/soak.py [--minutes 30] [--seed N]
"""

import argparse
import json
import os
import pathlib
import random
import re
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import labnet  # noqa: E402
import walk  # noqa: E402

PREFIXES = 100  # of other programs' routes
WARM_UP = 0.1  # of the time
MEMORY_SLACK = 512  # kB of a process's own memory: pages of the heap that a peak has touched
REPORT_EVERY = 60
REPORT_SECONDS = 5  # of a probe a second, each with half a second's patience
SETTLE_SECONDS = 60


def usage(process):
    """What must not grow."""
    status = pathlib.Path(f"/proc/{process.pid}/status").read_text()
    number = {key: int(re.search(rf"^{key}:\s+(\d+)", status, re.M)[1]) for key in ("Threads", "RssAnon")}
    return {"descriptors": len(os.listdir(f"/proc/{process.pid}/fd")), "threads": number["Threads"], "kB": number["RssAnon"]}


class Others:
    """What does not come from the switch's configuration: programs of the VRF, neighbours, probes."""

    def __init__(self, vrfs, switch, dice):
        self.vrfs, self.switch, self.dice = vrfs, switch, dice
        self.probes = set()
        self.due = {}  # probe -> when it must have been reported

    def next(self):
        vrf, dice = self.dice.choice(self.vrfs), self.dice
        device = f"rt{dice.randint(1, walk.LINKS)}"
        dice.choice((self.route, self.neighbour, self.probe))(vrf, device)

    def route(self, vrf, device):
        verb = self.dice.choice(("replace", "del"))
        subprocess.run(["ip", "-n", vrf.name, "route", verb, f"192.0.{self.dice.randrange(PREFIXES)}.0/24", "dev", device],
                       capture_output=True)

    def neighbour(self, vrf, device):
        address = f"10.{device[2:]}.0.{self.dice.randint(50, 99)}"
        words = self.dice.choice((["replace", address, "lladdr", "02:00:00:00:00:99", "dev", device], ["del", address, "dev", device]))
        subprocess.run(["ip", "-n", vrf.name, "neigh", *words], capture_output=True)

    def probe(self, vrf, _):
        key = vrf.id, self.dice.randint(1, 128)
        if key in self.probes:
            self.stop(key)
        else:
            self.switch.ctl("ipsla", "start", "vrf", *key, "to", f"10.{self.dice.randint(1, walk.LINKS)}.0.{self.dice.randint(1, 9)}",
                            "frequency", 1, "timeout", 500, "size", self.dice.choice((0, 32, 1400, 60000)))
            self.due[key] = time.monotonic() + REPORT_SECONDS
        self.probes ^= {key}

    def stop(self, key):
        """What has run long enough must have been reported, answered or not."""
        self.switch.ctl("ipsla", "stop", "vrf", *key)
        reports = json.loads(self.switch.ctl("ipsla", "show", "vrf", key[0], "json"))
        count = sum(row[what] for row in reports if row["id"] == key[1] for what in ("in-time", "failed", "late"))
        if time.monotonic() > self.due[key] and count == 0:
            raise RuntimeError(f"no report of probe {key}")

    def end(self):
        for key in self.probes:
            self.stop(key)
        self.probes.clear()


def soak(seconds, seed, say):
    dice = random.Random(seed)
    vrfs, switch, agents = walk.start_two()
    steps, others = walk.Walk(vrfs, dice), Others(vrfs, switch, dice)
    pids = [process.pid for process in (switch, *agents)]
    steps.kinds = [(kind, weight) for kind, weight in steps.kinds if kind != steps.routing_switch]
    began, changes, warm, reported = time.monotonic(), 0, None, 0
    while (elapsed := time.monotonic() - began) < seconds:
        walk.change(switch, steps.next())
        others.next()
        changes += 1
        if warm is None and elapsed > WARM_UP * seconds:
            others_at_rest(others, agents, steps, changes, say)
            warm = {process.name: usage(process) for process in (switch, *agents)}
        if elapsed - reported >= REPORT_EVERY:
            reported = elapsed
            say(f"{elapsed:.0f} s, {changes} changes: " + ", ".join(f"{each.name} {usage(each)}" for each in (switch, *agents)))
    others_at_rest(others, agents, steps, changes, say)
    if [process.pid for process in (switch, *agents)] != pids:
        raise RuntimeError("not the processes of the beginning")
    grown = [f"{process.name}: {warm[process.name]} -> {usage(process)}" for process in (switch, *agents)
             if has_grown(warm[process.name], usage(process))]
    if grown:
        raise RuntimeError("has grown: " + "; ".join(grown))
    say(f"{changes} changes in {seconds:.0f} s, nothing has grown: {warm}")


def others_at_rest(others, agents, steps, changes, say):
    """The same state each time: no probes, no foreign routes, everything mirrored, both ways."""
    others.end()
    walk.check(agents, steps, changes, say)
    for agent in agents:
        know_routes(agent.vrf)
    time.sleep(2)  # the probe task sees that it is not needed any more


def know_routes(vrf):
    """The switch knows every route of other programs, and that it has gone. It may know more: what the kernel drops with a link, it
    drops without a word. A route that leads nowhere takes the place of each."""
    def unknown():
        return [line for line in labnet.differences(vrf, ("kernel-routes", "neighbours")).splitlines() if not line.startswith("-")]
    labnet.until(lambda: not unknown(), SETTLE_SECONDS, lambda: f"the switch knows {unknown()}")
    for verb in ("replace", "del"):
        labnet.ip_batch((f"route {verb} blackhole 192.0.{number}.0/24" for number in range(PREFIXES)), ns=vrf.name)
        labnet.until_all_mirrored(vrf, SETTLE_SECONDS)


def has_grown(warm, now):
    return now["descriptors"] > warm["descriptors"] or now["threads"] > warm["threads"] or now["kB"] > warm["kB"] + MEMORY_SLACK


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--minutes", type=float, default=30)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    options = parser.parse_args()
    print(f"seed {options.seed}", flush=True)
    return labnet.run_in_sandbox("soak", lambda: soak(60 * options.minutes, options.seed, lambda text: print(text, flush=True)))


if __name__ == "__main__":
    sys.exit(main())
