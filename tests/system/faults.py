#!/usr/bin/python3
"""Faults, one after the other in an order that the seed decides, each while interfaces and routes change: killed agents and
switches, platform calls that fail, a kernel that refuses, overruns, no memory, clocks that are set. During those that last, the
agent's loop must turn; each must leave a trace in a counter, a log or an exit, and no fault must leave none. After each the switch
does once what a real one would do: it starts what has ended, enables the interfaces again, sends the routes again. Then the kernel
must be what the switch holds, and the loop must turn. A fault that fails is named, and the others go on with a new system.

    tests/system/faults.py [--seed N] [--share 1.0] [--only NAME] [--every K/N]

--share takes only so large a part of each kind of fault; --only a kind, or the faults whose names begin with NAME, such as
"call_fails IntfIpMtuGet NO_MORE". N runs of one seed side by side, with the parts from 1/N to N/N, are together a whole one.

Some failures the agent only traces, and with its masks at 0 not at all; the summary names them. Of full tables only the switch's
own is made: the kernel's table of routes has no limit of its own, and memory cannot be taken from it alone.
"""

import argparse
import collections
import pathlib
import random
import re
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "scripts"))
import labnet  # noqa: E402
from fault_kinds import (  # noqa: E402
    CODES, DEFAULT_VRF_CALLS, FOR_A_WHILE, NOTHING, ONCE, RUN_CALLS, SEEN, SILENCE_CALLS, START_CALLS, agent_killed, call_fails,
    default_vrf_call_fails, descriptors_limited, device_gone, gateway_refused, memory_limited, nothing, output_blocked, overrun,
    switch_killed, switch_stopped, switch_table_full, wall_clock_set)
from fault_system import SANITIZED, System  # noqa: E402

STOP_SECONDS = 40  # longer than calls and events are waited for, and than the 30 seconds after which an agent complains
FAILURES_MAX = 20


# The faults ---------------------------------------------------------------------------------------------------------


def platform_calls():
    """Those of the interface, each of which must be among the faults."""
    header = (labnet.ROOT / "platform" / "include" / "tarnapi.h").read_text()
    return set(re.findall(r"^int32_t (?:rpcclt_)?tarnapi(\w+)\(", header, re.M))


def all_faults():
    calls = (*START_CALLS, *RUN_CALLS, *SILENCE_CALLS)
    if platform_calls() != {*calls, *DEFAULT_VRF_CALLS}:
        raise RuntimeError(f"not the platform's calls: {platform_calls() ^ {*calls, *DEFAULT_VRF_CALLS}}")
    rows = [(nothing, what) for what in ("changes", "restart") for _ in range(5)]
    rows += [(agent_killed, moment) for moment in ("start-up", "drain", "enable", "replay") for _ in range(3)]
    rows += [(switch_killed, False), (switch_killed, True), (switch_stopped, 2), (switch_stopped, STOP_SECONDS)]
    rows += [(call_fails, call, code, how) for call in calls for code in CODES for how in (ONCE, FOR_A_WHILE)]
    rows += [(default_vrf_call_fails, call, code, how) for call in DEFAULT_VRF_CALLS for code in CODES
             for how in (ONCE, FOR_A_WHILE)]
    rows += [(device_gone, how) for how in ("deleted", "renamed", "down")]
    rows += [(gateway_refused,), (switch_table_full,), (memory_limited,), (descriptors_limited,), (output_blocked,)]
    rows += [(overrun, what) for what in ("routes", "neighbours", "events")]
    rows += [(wall_clock_set, seconds) for seconds in (-86400, 1, 3600, 86400 * 365)]
    return [row for row in rows if not (SANITIZED and needs_plain_build(*row))]


def needs_plain_build(fault, *arguments):
    """A sanitizer needs all the address space, and no library before its own."""
    return fault in (memory_limited, wall_clock_set) or (arguments and arguments[0] in SILENCE_CALLS)


# A run ---------------------------------------------------------------------------------------------------------------


def name_of(fault, *arguments):
    return " ".join(map(str, (fault.__name__, *arguments)))


def chosen(share, only, dice):
    """At least one of each kind."""
    kinds = {}
    for row in all_faults():
        if only is None or row[0].__name__ == only or name_of(*row).startswith(only):
            kinds.setdefault(row[0], []).append(row)
    picked = [row for rows in kinds.values() for row in dice.sample(rows, max(1, round(share * len(rows))))]
    dice.shuffle(picked)
    return picked


def strike(system, fault, arguments):
    """Returns how it showed, and an example."""
    system.agent.forget()
    reason = fault(system, *arguments)
    shown = {} if reason == SEEN else system.agent.shown()
    if reason is None and not shown:
        raise RuntimeError("no trace in a counter, a log or an exit")
    if reason == NOTHING and shown:
        raise RuntimeError(f"a trace of nothing: {shown}")
    system.heal()
    system.loop_turns()
    for way in ("counter", "log", "exit"):
        if way in shown:
            return way, shown[way]
    return ("trace", shown["trace"]) if shown else (reason, "")


class Run:
    """The systems that the faults strike, and what came of it."""

    def __init__(self, dice, say):
        self.dice, self.say = dice, say
        self.system = System(dice)
        self.outcomes = collections.defaultdict(collections.Counter)
        self.traced = set()
        self.failures = []

    def one(self, fault, *arguments):
        name, began = name_of(fault, *arguments), time.monotonic()
        example = ""
        try:
            outcome, example = strike(self.system, fault, arguments)
        except (RuntimeError, TimeoutError, OSError, ValueError, LookupError, subprocess.SubprocessError) as failure:
            outcome = "failed"
            self.failures.append(name)
            self.say(f"FAILED {name}: {failure!r}\n  the agent's log ends:\n{self.system.agent.said()[-1500:]}")
            self.system.close()
            self.system = System(self.dice)
        if outcome == "trace":
            self.traced.add(" ".join(map(str, arguments[:1])))
        known = ("counter", "log", "exit", "trace", "failed", SEEN, NOTHING)
        self.outcomes[fault.__name__][outcome if outcome in known else "passed over"] += 1
        self.say(f"{name}: {outcome}, {time.monotonic() - began:.1f} s" + (f": {example}" if example else ""))

    def summary(self):
        for kind, outcomes in self.outcomes.items():
            ways = ", ".join(f"{outcome} {count}" for outcome, count in outcomes.most_common())
            self.say(f"{kind}: {sum(outcomes.values())}: {ways}")
        self.say(f"only traced, with the masks on: {', '.join(sorted(self.traced)) or 'none'}")
        count = sum(sum(outcomes.values()) for outcomes in self.outcomes.values())
        self.say(f"{count} faults, {len(self.failures)} failed" + "".join("\n  " + name for name in self.failures))


def kinds():
    return sorted({row[0] for row in all_faults()}, key=lambda kind: kind.__name__)


def every_of(text):
    """K/N -> every N-th of the faults, from the K-th on."""
    match = re.fullmatch(r"(\d+)/(\d+)", text)
    if not match or not 1 <= int(match[1]) <= int(match[2]):
        raise argparse.ArgumentTypeError("K/N, with K from 1 to N")
    return slice(int(match[1]) - 1, None, int(match[2]))


def run(share, seed, only, say, kinds=None, every=slice(None)):
    """Returns the names of the faults that failed."""
    dice = random.Random(seed)
    whole = Run(dice, say)
    for fault, *arguments in chosen(share, only, dice)[every]:
        if kinds is None or fault in kinds:
            whole.one(fault, *arguments)
        if len(whole.failures) == FAILURES_MAX:
            say("too many failures")
            break
    whole.summary()
    return whole.failures


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--seed", type=int, default=random.randrange(1 << 31))
    parser.add_argument("--share", type=float, default=1.0)
    parser.add_argument("--only", metavar="NAME", help="one kind of fault, or those whose names begin with NAME")
    parser.add_argument("--every", type=every_of, default=slice(None), metavar="K/N", help="every N-th of them, from the K-th on")
    options = parser.parse_args()
    if not chosen(0, options.only, random.Random(0)):
        parser.error(f"--only: no fault's name begins with \"{options.only}\"; the kinds are: "
                     + ", ".join(kind.__name__ for kind in kinds()))
    print(f"seed {options.seed}", flush=True)
    def say(text):
        print(text, flush=True)
    return labnet.run_in_sandbox("faults", lambda: bool(run(options.share, options.seed, options.only, say, every=options.every)))


if __name__ == "__main__":
    sys.exit(main())
