#!/usr/bin/python3
"""The lab: a switch with two VRFs whose addresses overlap, an agent for each, and hosts behind them, all in a sandbox.

    ./lab              runs until Ctrl-C and shows how many interfaces and routes the switch and the kernels hold
    ./lab --once       waits until both kernels mirror the switch, prints both sides, pings across each VRF, and ends
    ./lab exec <...>   runs a command inside the running lab
"""

import argparse
import fcntl
import ipaddress
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import time

import labnet

PID_FILE = pathlib.Path("/run") / f"mirel-lab{str(labnet.ROOT).replace('/', '-')}.pid"
ONCE_TIMEOUT = 60
KNOWN_TO_SWITCH = "10.2.0.50"  # a neighbour of rt2 that is not there
FOREIGN = "198.51.100.0/24"  # a route that the switch does not have
PROBES = """\
ipsla start vrf {id} 1 to 172.16.2.1 frequency 1 threshold 1000 timeout 500
ipsla start vrf {id} 2 to 10.1.0.66 frequency 1 threshold 1000 timeout 500
ipsla start vrf {id} 3 to 172.16.2.1 frequency 1 threshold 0 timeout 500
"""
PROBE_SHOWS = {1: "in-time", 2: "failed", 3: "late"}  # a host that answers, nobody, no time to answer in
COUNTERS = ("ipInReceives", "ipForwDatagrams", "ipOutRequests", "icmpOutEchos", "icmpInEchoReps")
COUNTERS_AFTER = 10  # seconds between two readings of the agent
RESTART_AFTER = 2
QUIET_REPORT_EVERY = 10

# What the switch holds for a VRF beside its plain interfaces. {a} and {b} are the interfaces behind rt1 and rt2; the two
# VRFs hold the same prefixes and send them different ways.
SETTINGS = """\
interface set {a} mtu 1400 redirects 0
interface secondary {a} add 10.11.0.1/24
interface vrrp {b} label 7 add 10.2.0.254
arp learn vrf {id} 10.2.0.50 mac 02:00:00:00:00:50 interface {b}
route add vrf {id} 0.0.0.0/0 via 10.2.0.9 interface {b}
route add vrf {id} 10.1.0.0/24 local via 10.1.0.1 interface {a}
route add vrf {id} 10.2.0.0/24 local via 10.2.0.1 interface {b}
route add vrf {id} 172.16.1.0/24 via 10.1.0.2 interface {a}
route add vrf {id} 172.16.2.0/24 via 10.2.0.2 interface {b}
route add vrf {id} 192.0.2.0/24 reject
route add vrf {id} 192.168.0.0/16 via 10.2.0.7 interface {b} via 10.1.0.7 interface {a} via 10.1.0.8 interface {a}
route add vrf {id} 203.0.113.0/25 kernel via 10.1.0.4 interface {a}
route add vrf {id} 203.0.113.128/25 install-kernel via 10.1.0.4 interface {a}
route add vrf {id} 100.64.0.0/10 via-vrf-device
route add vrf {id} 100.127.0.0/16 mpls via 10.1.0.5 interface {a}
route add vrf {id} 100.127.1.0/24 rfc5549 via 10.1.0.6 interface {a}
"""
BULK = {3: ["routes add vrf 3 20.0.0.0/24 count 12 via 10.1.0.3 interface {a}",
            "routes add vrf 3 30.0.0.0/32 count 8 via 10.2.0.3 interface {b}"],
        7: ["routes add vrf 7 20.0.0.0/24 count 16 via 10.2.0.4 interface {b}",
            "routes add vrf 7 30.0.0.0/32 count 8 via 10.1.0.4 interface {a}"]}


def switch_script(vrf):
    a, b = (labnet.interface_of(vrf, number) for number in (1, 2))
    lines = labnet.vrf_script(vrf) + SETTINGS.format(id=vrf.id, a=a, b=b).splitlines()
    lines += [line.format(a=a, b=b) for line in BULK[vrf.id]]
    return lines + [f"vrf set {vrf.id} routing on"]


class Lab:
    def __init__(self):
        self.vrfs = [labnet.make_vrf(3, "blue"), labnet.make_vrf(7, "red")]
        for vrf in self.vrfs:
            labnet.add_tunnel_devices(vrf)
        self.switch = labnet.Switch([line for vrf in self.vrfs for line in switch_script(vrf)])
        self.agents = [labnet.Agent(vrf) for vrf in self.vrfs]
        self.ended = {}

    def start(self):
        self.switch.start()
        for agent in self.agents:
            agent.start()
            self.settle(agent)

    @staticmethod
    def settle(agent):
        # Changes show within a second here instead of the ten that an agent waits by itself.
        agent.sh("mirelBestRoutePollTimeSet", 1)

    def stop(self):
        for process in [*self.agents, self.switch]:
            if process.running():
                process.kill(signal.SIGTERM)

    def revive(self, say):
        """Starts again what ended, as the supervisor of a switch does."""
        for process in [self.switch, *self.agents]:
            if process.running():
                continue
            now = time.monotonic()
            if now - self.ended.setdefault(process.name, now) < RESTART_AFTER:
                continue
            say(f"{process.name} ended with {process.child.returncode}; starting it again")
            self.ended.pop(process.name)
            try:
                process.start()
                if process in self.agents:
                    self.settle(process)
                    process.start_probes()
            except (TimeoutError, RuntimeError) as error:
                say(str(error))


# Showing -----------------------------------------------------------------------------------------------------------


def counts():
    """A row for each area of each VRF; none while the switch does not answer."""
    rows = []
    for line in labnet.orrinctl("diff", *labnet.AREAS, "summary").stdout.splitlines():
        _, number, name, area, _, switch, _, wanted, _, kernel, _, different = line.split()
        rows.append((f"{number} {name} {area}", int(switch), int(wanted), int(kernel), int(different)))
    return rows


class Live:
    """The counts as a table that stays in its place on a terminal, else as a line whenever they change."""

    HEAD = ("VRF", "switch holds", "for the kernel", "kernel holds", "different")

    def __init__(self):
        self.terminal = sys.stdout.isatty()
        self.drawn = 0
        self.last = None
        self.last_time = 0.0

    def say(self, text):
        print(text, flush=True)
        self.drawn = 0

    def show(self, rows):
        silent = ["the switch does not answer"]
        if self.terminal:
            lines = ["{:<22}{:>14}{:>16}{:>14}{:>11}".format(*row) for row in (self.HEAD, *rows)] if rows else silent
            back = f"\x1b[{self.drawn}A" if self.drawn else ""
            # Each line is cleared before it is written, and so is what an earlier, longer table left below.
            sys.stdout.write(back + "".join(f"\x1b[2K{line}\n" for line in lines) + "\x1b[J")
            sys.stdout.flush()
            self.drawn = len(lines)
        elif rows != self.last or time.monotonic() - self.last_time > QUIET_REPORT_EVERY:
            known = [] if rows == self.last else self.last or []
            line = "vrf {}: switch {}, for the kernel {}, kernel {}, different {}"
            self.say("\n".join([line.format(*row) for row in rows if row not in known] or silent))
            self.last_time = time.monotonic()
        self.last = rows


def switch_side(vrf):
    """prefix -> what the switch says of it: its own route, or what the agent reported."""
    sides = {}
    for line in labnet.orrinctl("show", "routes", "vrf", vrf.id).stdout.splitlines()[1:]:
        _, prefix, origin, best, options = line.split(maxsplit=4)
        if best == "yes":
            sides[prefix] = options if origin == "switch" else f"{options} (reported)"
    return sides


def kernel_side(vrf):
    """prefix -> how the kernel shows it, whoever put it there."""
    sides = {}
    for route in vrf.routes():
        prefix = "0.0.0.0/0" if route["dst"] == "default" else route["dst"]
        prefix = prefix if "/" in prefix else f"{prefix}/32"
        words = [route["type"]] if "type" in route else []
        words += [f"via {route['gateway']}"] if "gateway" in route else []
        words += [f"dev {route['dev']}"] if "dev" in route and "type" not in route else []
        words += [f"({route['protocol']})"] if route.get("protocol") != str(labnet.AGENT_PROTOCOL) else []
        sides[prefix] = " ".join(words)
    return sides


def print_side_by_side(vrf):
    switch, kernel = switch_side(vrf), kernel_side(vrf)
    prefixes = sorted({*switch, *kernel}, key=ipaddress.ip_network)
    width = max([len(text) for text in switch.values()] + [20])
    print(f"\nVRF {vrf.id} {vrf.name}")
    for device, (on_switch, in_kernel) in interface_sides(vrf).items():
        print(f"{device}  switch  {on_switch}\n     kernel  {in_kernel}")
    print(f"{'prefix':<20}{'switch':<{width + 2}}kernel")
    for prefix in prefixes:
        print(f"{prefix:<20}{switch.get(prefix, '-'):<{width + 2}}{kernel.get(prefix, '-')}")


def interface_sides(vrf):
    """device -> what the switch says of it, and the kernel."""
    kernel = {link["ifname"]: link for link in labnet.ip_json("addr", "show", ns=vrf.name)}
    sides = {}
    for interface in json.loads(labnet.orrinctl("show", "interfaces", "vrf", vrf.id, "json").stdout):
        link = kernel[interface["device"]]
        addresses = [f"{each['local']}/{each['prefixlen']} ({each['label']})" for each in link["addr_info"]
                     if each["family"] == "inet"]
        sides[interface["device"]] = (
            " ".join([interface["state"], interface["mac"], f"mtu {interface['mtu']}", interface["address"],
                      interface["more-addresses"]]).strip(),
            " ".join(["up" if "UP" in link["flags"] else "down", link["address"], f"mtu {link['mtu']}", *addresses]))
    return sides


def ping_across(vrf):
    """From a host behind rt1 to one behind rt2, between addresses that only mirrored routes reach. The first packets may be
    lost to a link that has just come up."""
    ping = labnet.in_netns(vrf.host(1), "ping", "-c1", "-W1", "-I", "172.16.1.1", "172.16.2.1")
    done = labnet.until(lambda: done if (done := subprocess.run(ping, text=True, capture_output=True)).returncode == 0 else None,
                        10, f"a ping crosses VRF {vrf.name}")
    return done.stdout.splitlines()[1]


def neighbours(vrf):
    """address -> what the switch says of it, and the kernel."""
    sides = {}
    for entry in json.loads(labnet.orrinctl("show", "arp", "vrf", vrf.id, "json").stdout):
        sides[entry["address"]] = [f"{entry['mac']} from the {entry['origin']}", "-"]
    for entry in labnet.ip_json("-4", "neigh", "show", ns=vrf.name):
        in_kernel = f"{entry.get('lladdr', 'unknown')} dev {entry['dev']} {entry['state'][0]}"
        sides.setdefault(entry["dst"], ["-", "-"])[1] = in_kernel
    return sides


def show_neighbours(vrf):
    """A packet to a neighbour that only the switch knows: the kernel asks, and the agent writes the switch's answer."""
    ping = labnet.in_netns(vrf.host(1), "ping", "-c1", "-W1", KNOWN_TO_SWITCH)
    subprocess.run(ping, capture_output=True)  # nobody answers
    labnet.until(lambda: "02:00:00:00:00:50" in neighbours(vrf).get(KNOWN_TO_SWITCH, ("", ""))[1], 10,
                 lambda: f"the kernel of VRF {vrf.name} knows {KNOWN_TO_SWITCH}: {neighbours(vrf)}")
    print(f"{'neighbour':<20}{'switch':<38}kernel")
    for address, sides in sorted(neighbours(vrf).items(), key=lambda entry: ipaddress.ip_address(entry[0])):
        print("{:<20}{:<38}{}".format(address, *sides))


def show_foreign_route(vrf):
    """A route that another program adds to the kernel and removes."""
    took = []
    for verb, known in (("add", True), ("del", False)):
        started = time.monotonic()
        labnet.ip("route", verb, FOREIGN, "via", "10.1.0.9", ns=vrf.name)
        labnet.until(lambda: (FOREIGN in switch_side(vrf)) == known, 10, f"the switch follows ip route {verb} {FOREIGN}")
        took.append(time.monotonic() - started)
    print("ip route add and del {}: the switch had followed after {:.0f} ms and {:.0f} ms".format(
        FOREIGN, *(1000 * each for each in took)))


def start_probes(lab):
    for vrf in lab.vrfs:
        for line in PROBES.format(id=vrf.id).splitlines():
            # An agent takes none before its start-up is through.
            labnet.until(lambda: labnet.orrinctl(*line.split()).returncode == 0, 20, f"the agent takes \"{line}\"")


def show_probes(vrf):
    """What the agent reported of each probe so far, at least once."""
    def reports():
        rows = {row["id"]: row for row in json.loads(labnet.orrinctl("ipsla", "show", "vrf", vrf.id, "json").stdout)}
        return all(rows.get(number, {}).get(column) for number, column in PROBE_SHOWS.items())
    labnet.until(reports, 10, lambda: f"the probes of VRF {vrf.name} show what they are for:\n"
                 + labnet.orrinctl("ipsla", "show", "vrf", vrf.id).stdout)
    print(labnet.orrinctl("ipsla", "show", "vrf", vrf.id).stdout, end="")


def show_counters(vrf):
    """The kernel's, as the agent serves them."""
    def counters():
        rows = json.loads(labnet.orrinctl("stats", "vrf", vrf.id, "json").stdout or "[]")
        values = {row["name"]: row["value"] for row in rows if row["name"] in COUNTERS}
        return values if values and all(values.values()) else None
    values = labnet.until(counters, 2 * COUNTERS_AFTER, f"the agent of VRF {vrf.name} has read the kernel's counters")
    print("counters:", ", ".join(f"{name} {value}" for name, value in values.items()))


# Running -----------------------------------------------------------------------------------------------------------


def run_once():
    lab = Lab()
    started = time.monotonic()
    try:
        lab.start()
        for vrf in lab.vrfs:
            labnet.until_mirrored(vrf, max(0, started + ONCE_TIMEOUT - time.monotonic()))
        start_probes(lab)
        for vrf in lab.vrfs:
            print_side_by_side(vrf)
            print(f"ping from 172.16.1.1 behind rt1: {ping_across(vrf)}")
            show_neighbours(vrf)
            show_foreign_route(vrf)
            show_probes(vrf)
            show_counters(vrf)
        print(f"\nboth kernels mirror the switch, {time.monotonic() - started:.1f} s after the start")
        return 0
    except (TimeoutError, RuntimeError) as error:
        print(f"lab: {error}", file=sys.stderr)
        return 1
    finally:
        lab.stop()


INTRODUCTION = """\
The switch and its two agents are running. From another terminal:
  ./lab exec orrinctl show routes vrf 3
  ./lab exec orrinctl route add vrf 3 198.51.100.0/24 via 10.1.0.2 interface {a}
  ./lab exec orrinctl routes add vrf 7 60.0.0.0/32 count 100000 via 10.1.0.2 interface {b}
  ./lab exec orrinctl diff
  ./lab exec ip -n blue route
  ./lab exec orrinctl show arp vrf 3
  ./lab exec ip -n blue route add 198.51.101.0/24 via 10.1.0.2   then ask the switch for it
  ./lab exec orrinctl interface set {a} mtu 1300
  ./lab exec orrinctl ipsla show               three probes in each VRF: answered, not answered, too slow
  ./lab exec orrinctl stats vrf 3
  ./lab exec mirelsh 3 mirelStatsShow
  ./lab exec ip netns exec blue-h2 bash        a host behind VRF blue
  ./lab exec kill -9 {pid}                         an agent; the lab starts again what ended
The agents fetch changes every second here (mirelBestRoutePollTimeSet); the default is ten. Ctrl-C ends the lab.
"""


def run_live():
    lab = Lab()
    live = Live()
    try:
        lab.start()
        live.say(INTRODUCTION.format(a=labnet.interface_of(lab.vrfs[0], 1), b=labnet.interface_of(lab.vrfs[1], 1),
                                     pid=lab.agents[0].pid))
        start_probes(lab)
        while True:
            began = time.monotonic()
            live.show(counts())
            # Counting a million routes takes a while: most of the processor stays with the agents.
            time.sleep(max(1.0, 3 * (time.monotonic() - began)))
            lab.revive(live.say)
    except KeyboardInterrupt:
        print("\nending")
        return 0
    except (TimeoutError, RuntimeError) as error:
        print(f"lab: {error}", file=sys.stderr)
        return 1
    finally:
        signal.signal(signal.SIGINT, signal.SIG_IGN)
        lab.stop()


def lock_pid_file(how):
    """The lab's pid file, locked as long as the lab runs. None when someone else holds the lock."""
    handle = os.open(PID_FILE, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
    try:
        fcntl.flock(handle, how | fcntl.LOCK_NB)
    except BlockingIOError:
        os.close(handle)
        return None
    return handle


def exec_inside(command):
    if not PID_FILE.exists() or lock_pid_file(fcntl.LOCK_SH) is not None:
        sys.exit("lab: not running; start it with ./lab in another terminal")
    if not command:
        sys.exit("usage: ./lab exec <command> ...")
    pid = PID_FILE.read_text().strip()
    os.environ["PATH"] = f"{labnet.BIN}:{os.environ['PATH']}:/usr/sbin:/sbin"
    os.execvp("nsenter", ["nsenter", "--target", pid, "--mount", "--net", "--pid", "--", *command])


def main():
    if sys.argv[1:2] == ["exec"]:
        exec_inside(sys.argv[2:])
    parser = argparse.ArgumentParser(prog="./lab", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--once", action="store_true", help="wait for the mirror, print it, end")
    options = parser.parse_args()

    if os.geteuid() != 0:
        sys.exit("lab: needs root, to make namespaces")
    missing = [program for program in ("ip", "ifconfig", "nsenter", "ping")
               if not shutil.which(program, path="/usr/sbin:/usr/bin:/sbin:/bin")]
    if missing:
        sys.exit(f"lab: missing: {', '.join(missing)}; run scripts/install")
    handle = lock_pid_file(fcntl.LOCK_EX)
    if handle is None:
        sys.exit("lab: already running from this folder")

    work = run_once if options.once else run_live
    sandbox = labnet.start_sandbox(work, lambda pid: os.pwrite(handle, f"{pid}\n".encode(), 0))
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, lambda *_: os.kill(sandbox, signal.SIGINT))
    status = os.waitstatus_to_exitcode(os.waitpid(sandbox, 0)[1])
    PID_FILE.unlink(missing_ok=True)
    return status


if __name__ == "__main__":
    sys.exit(main())
