"""What the lab and the system tests are made of: a sandbox, VRF namespaces with hosts, a switch and agents.

The sandbox is a process with mount, network and process-id namespaces of its own and its own /tmp and /run. Everything is
started inside it, so nothing collides with the machine, no agent ever runs in the machine's own namespace, and whatever
happens to the program, the kernel clears all of it away when the sandbox's first process ends.
"""

import ctypes
import json
import os
import pathlib
import signal
import subprocess
import sys
import time
import traceback
from dataclasses import dataclass

ROOT = pathlib.Path(__file__).resolve().parent.parent
BIN = pathlib.Path(os.environ.get("MIREL_BIN", ROOT / "build" / "release" / "bin")).resolve()
AGENT_PROTOCOL = 25
AREAS = ("interfaces", "routes", "neighbours", "kernel-routes")  # of `orrinctl diff`

CLONE_NEWNS, CLONE_NEWPID, CLONE_NEWNET = 0x00020000, 0x20000000, 0x40000000
MS_BIND, MS_REC, MS_PRIVATE, MS_NOSUID, MS_NODEV = 0x1000, 0x4000, 0x40000, 0x2, 0x4
PR_SET_PDEATHSIG = 1

_libc = ctypes.CDLL(None, use_errno=True)


def _system_call(name, *args):
    if getattr(_libc, name)(*args) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}")


def _mount(source, target, kind, flags, data=""):
    _system_call("mount", source.encode(), str(target).encode(), kind.encode(), ctypes.c_ulong(flags), data.encode())


def _die_with_parent():
    _system_call("prctl", PR_SET_PDEATHSIG, signal.SIGKILL, 0, 0, 0)


# Sandbox -----------------------------------------------------------------------------------------------------------


def _furnish():
    """Private /tmp, /run and /proc. A build tree below one of them is carried along, or it would vanish from sight."""
    _mount("none", "/", "", MS_REC | MS_PRIVATE)
    kept = os.open(ROOT, os.O_PATH | os.O_DIRECTORY)
    for folder in ("/tmp", "/run"):
        _mount("tmpfs", folder, "tmpfs", MS_NOSUID | MS_NODEV, "mode=1777" if folder == "/tmp" else "mode=755")
    if ROOT.is_relative_to("/tmp") or ROOT.is_relative_to("/run"):
        ROOT.mkdir(parents=True)
        _mount(f"/proc/self/fd/{kept}", ROOT, "", MS_BIND | MS_REC)
    os.close(kept)
    _mount("proc", "/proc", "proc", MS_NOSUID | MS_NODEV)
    os.chdir(ROOT)
    os.environ.pop("ORRIN_SOCKET", None)
    os.environ.pop("QVPROC_RUN_DIR", None)
    os.environ["PATH"] = f"{BIN}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin"
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)


def start_sandbox(work, announce=None):
    """Runs work() as the first process of a sandbox; its result is the exit status. Returns the process to wait for,
    which passes SIGINT on to work(). Killing it, or the end of the caller, ends everything in the sandbox. announce is
    told the first process's id as the world outside knows it."""
    sys.stdout.flush()
    sys.stderr.flush()
    keeper = os.fork()
    if keeper != 0:
        return keeper
    status = 99
    try:
        _die_with_parent()
        os.setsid()  # the terminal's Ctrl-C is the caller's to pass on, once
        signal.signal(signal.SIGINT, signal.default_int_handler)
        _system_call("unshare", CLONE_NEWNS | CLONE_NEWNET | CLONE_NEWPID)
        first = os.fork()
        if first == 0:
            _die_with_parent()
            _furnish()
            status = work() or 0
        else:
            signal.signal(signal.SIGINT, lambda *_: os.kill(first, signal.SIGINT))
            if announce:
                announce(first)
            status = os.waitstatus_to_exitcode(os.waitpid(first, 0)[1])
    except BaseException:  # nothing may unwind into the copy of the caller
        traceback.print_exc()
    finally:
        sys.stdout.flush()
        sys.stderr.flush()
        os._exit(status if 0 <= status <= 255 else 98)


def obstacle():
    """Why nothing can be run here, None when it can."""
    if os.geteuid() != 0:
        return "needs root, to make namespaces"
    if not (BIN / "mirel").exists():
        return f"{BIN} has no mirel: build it first (cmake --preset release && cmake --build --preset release)"
    return None


def run_in_sandbox(name, work):
    """work() in a sandbox, for a program of this name; returns the exit status."""
    if reason := obstacle():
        print(f"{name}: {reason}", file=sys.stderr)
        return 1
    return os.waitstatus_to_exitcode(os.waitpid(start_sandbox(work), 0)[1])


# Waiting -----------------------------------------------------------------------------------------------------------


def until(condition, at_most, what):
    """Asks again and again until condition() holds, at most so many seconds. Returns what it returned."""
    deadline = time.monotonic() + at_most
    while True:
        answer = condition()
        if answer:
            return answer
        if time.monotonic() > deadline:
            raise TimeoutError(f"not within {at_most} s: {what() if callable(what) else what}")
        time.sleep(0.03)


# Kernel ------------------------------------------------------------------------------------------------------------


def run(*command, **options):
    done = subprocess.run([str(word) for word in command], text=True, capture_output=True, **options)
    if done.returncode != 0:
        raise RuntimeError(f"{' '.join(map(str, command))}: {done.stdout}{done.stderr}".strip())
    return done.stdout


def ip(*words, ns=None):
    return run("ip", *(["-n", ns] if ns else []), *words)


def ip_json(*words, ns=None):
    return json.loads(run("ip", *(["-n", ns] if ns else []), "-j", *words) or "[]")


def ip_batch(lines, ns=None):
    run("ip", *(["-n", ns] if ns else []), "-batch", "-", input="".join(line + "\n" for line in lines))


def in_netns(ns, *command):
    return ["ip", "netns", "exec", ns, *map(str, command)]


def enter_netns(descriptor):
    """For a child before it becomes another program."""
    _system_call("setns", descriptor, CLONE_NEWNET)


def link_index(ns, device):
    return ip_json("link", "show", "dev", device, ns=ns)[0]["ifindex"]


def ensure_netns(name):
    ip("netns", "add", name)
    ip("link", "set", "lo", "up", ns=name)


# VRFs and hosts ----------------------------------------------------------------------------------------------------


@dataclass(frozen=True)
class Vrf:
    """A VRF and its namespace of the same name. The switch gives 10.<n>.0.1/24 to device rt<n>; behind it the host
    namespace <name>-h<n> has 10.<n>.0.2 to .9 as gateways and 172.16.<n>.1 as an address that only a mirrored route
    reaches. Every VRF has the same addresses: that they stay apart is what VRFs are for."""

    id: int
    name: str

    def host(self, number):
        return f"{self.name}-h{number}"

    def routes(self, *selector):
        """The kernel's routes of the main table."""
        return ip_json("route", "show", "table", "main", *selector, ns=self.name)

    def mirrored(self):
        """What the agent put there: prefix -> route as `ip -j` shows it."""
        return {route["dst"]: route for route in self.routes("proto", str(AGENT_PROTOCOL))}


def make_vrf(vrf_id, name, links=2):
    """The namespaces and their links. The VRF's devices are bare: down and without addresses, as the agent finds them."""
    vrf = Vrf(vrf_id, name)
    ip("netns", "add", name)
    run(*in_netns(name, "sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward"))
    for number in range(1, links + 1):
        host = vrf.host(number)
        ensure_netns(host)
        ip("link", "add", f"rt{number}", "netns", name, "type", "veth", "peer", "name", "eth0", "netns", host)
        ip_batch(["link set eth0 up", *(f"addr add 10.{number}.0.{last}/24 dev eth0" for last in range(2, 10)),
                  f"addr add 172.16.{number}.1/32 dev lo", f"route add default via 10.{number}.0.1"], ns=host)
    return vrf


def dress(vrf, links=2):
    """Sets the VRF's devices up by hand, where no agent does."""
    ip_batch([line for number in range(1, links + 1)
              for line in (f"addr add 10.{number}.0.1/24 dev rt{number}", f"link set rt{number} up")], ns=vrf.name)


def add_tunnel_devices(vrf):
    """The devices of routes that leave without a gateway; bridges stand in for them."""
    ip_batch([line for device in (f"{vrf.name}_stk", "rt_mpls", "rfc5549if")
              for line in (f"link add {device} type bridge", f"link set {device} up")], ns=vrf.name)


def interface_of(vrf, number):
    """The switch's number of the interface whose device is rt<number>; at most 1033, so a VRF from 10 on has only one."""
    return vrf.id * 100 + number if vrf.id < 10 else vrf.id


def vrf_script(vrf, links=2):
    """The commands that make the VRF and its interfaces known to the switch, and enable the interfaces."""
    lines = [f"vrf add {vrf.id} {vrf.name} interface {vrf.name} netns {vrf.name}"]
    for number in range(1, links + 1):
        interface = interface_of(vrf, number)
        lines += [f"interface add {interface} vrf {vrf.id} name 1/{vrf.id}/{number} device rt{number}",
                  f"interface set {interface} address 10.{number}.0.1/24", f"interface enable {interface}"]
    return lines


# Processes ---------------------------------------------------------------------------------------------------------


class Process:
    """A program in the background, its output in a log file. In a session of its own, so that Ctrl-C is not for it."""

    def __init__(self, name, command):
        self.name = name
        self.command = [str(word) for word in command]
        self.log = pathlib.Path("/tmp") / f"{name}.log"
        self.child = None

    def start(self):
        with self.log.open("ab") as out:
            self.child = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=out, stderr=out,
                                          start_new_session=True)

    @property
    def pid(self):
        return self.child.pid

    def running(self):
        return self.child is not None and self.child.poll() is None

    def kill(self, how=signal.SIGKILL, at_most=10):
        if self.running():
            self.child.send_signal(how)
        try:
            return self.child.wait(at_most)
        except subprocess.TimeoutExpired:
            self.child.kill()
            self.child.wait()
            raise TimeoutError(f"{self.name} did not end within {at_most} s of signal {how}") from None

    def said(self):
        return self.log.read_text(errors="replace") if self.log.exists() else ""


class Switch(Process):
    """orrin, started with a script; its state folder outlives a restart."""

    STATE = "/run/orrin/state"

    def __init__(self, script):
        pathlib.Path("/run/orrin").mkdir(exist_ok=True)
        self.script = pathlib.Path("/run/orrin/start")
        self.script.write_text("".join(line + "\n" for line in script))
        super().__init__("orrin", [])

    def start(self, *options):
        self.command = [str(BIN / "orrin"), "--state", self.STATE, "--script", str(self.script), *options]
        super().start()
        until(self._answers, 10, lambda: f"orrin answers; it said:\n{self.said()}")

    def _answers(self):
        if not self.running():
            raise RuntimeError(f"orrin ended: {self.said()}")
        return orrinctl("show", "status").returncode == 0

    def ctl(self, *words):
        done = orrinctl(*words)
        if done.returncode != 0:
            raise RuntimeError(f"orrinctl {' '.join(map(str, words))}: {done.stderr}{done.stdout}")
        return done.stdout

    def script_in(self, lines):
        done = orrinctl("-", input="".join(line + "\n" for line in lines))
        if done.returncode != 0:
            raise RuntimeError(f"orrinctl -: {done.stderr}")
        return done.stdout


def orrinctl(*words, **options):
    return subprocess.run([str(BIN / "orrinctl"), *map(str, words)], text=True, capture_output=True, **options)


class Agent(Process):
    """mirel of one VRF, inside the VRF's namespace."""

    def __init__(self, vrf):
        self.vrf = vrf
        super().__init__(f"mirel-{vrf.id}", in_netns(vrf.name, BIN / "mirel", f"mirel-{vrf.id}"))

    def start(self):
        """Starts it and waits until its debug operations answer."""
        super().start()
        until(lambda: self._answers(), 15, lambda: f"mirel-{self.vrf.id} answers; it said:\n{self.said()}")

    def _answers(self):
        if not self.running():
            raise RuntimeError(f"mirel-{self.vrf.id} ended with {self.child.returncode}: {self.said()}")
        return self.operation("mirelStatsShow").returncode == 0

    def operation(self, name, *args):
        """Its output is text as it is: no line end is translated."""
        done = subprocess.run([str(BIN / "mirelsh"), str(self.vrf.id), name, *map(str, args)], capture_output=True,
                              timeout=20)
        done.stdout, done.stderr = done.stdout.decode(), done.stderr.decode()
        return done

    def sh(self, name, *args):
        done = self.operation(name, *args)
        if done.returncode != 0:
            raise RuntimeError(f"mirelsh {self.vrf.id} {name}: {done.stderr}{done.stdout}")
        return done.stdout

    def start_probes(self):
        """Gives a new agent the operations that the switch keeps; it takes none before its start-up is through."""
        for line in orrinctl("dump", "vrf", self.vrf.id).stdout.splitlines():
            if line.startswith("ipsla start"):
                until(lambda: orrinctl(*line.split()).returncode == 0, 20, lambda: f"{self.name} takes \"{line}\"")

    def quick(self):
        """Fetches changes on every pass of the loop instead of every ten seconds."""
        self.sh("mirelBestRoutePollTimeSet", 0)


@dataclass(frozen=True)
class System:
    vrfs: list
    switch: Switch
    agents: list


def start_system(names=("blue",), script=()):
    """A running switch with VRFs 3, 4 ... of these names, routing on, and their agents, which have brought the interfaces up
    and fetch at every pass."""
    vrfs = [make_vrf(number, name) for number, name in enumerate(names, 3)]
    lines = [line for vrf in vrfs for line in (*vrf_script(vrf), f"vrf set {vrf.id} routing on")]
    switch = Switch([*lines, *script])
    switch.start()
    agents = [Agent(vrf) for vrf in vrfs]
    for agent in agents:
        agent.start()
        agent.quick()
        until_mirrored(agent.vrf, areas=("interfaces",))
    return System(vrfs, switch, agents)


def differences(vrf=None, areas=()):
    """What `orrinctl diff` prints; empty when the mirror is true."""
    done = orrinctl("diff", *(["vrf", vrf.id] if vrf else []), *areas)
    if done.returncode not in (0, 1):
        raise RuntimeError(f"orrinctl diff: {done.stderr}")
    return done.stdout


def until_mirrored(vrf, at_most=20, areas=()):
    """Interfaces and routes, unless areas are named: those hold also after kills, flaps and lost messages."""
    until(lambda: not differences(vrf, areas), at_most,
          lambda: f"VRF {vrf.id} is mirrored; still different:\n{differences(vrf, areas)}")


def until_all_mirrored(vrf, at_most=20):
    """What agents report of the kernel as well; true where no agent or switch was killed, no link flapped, nothing was lost."""
    until_mirrored(vrf, at_most, AREAS)
