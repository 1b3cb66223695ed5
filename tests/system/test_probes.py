"""IP SLA probes on the wire, the counters that the agent serves, and requests of other processes to a starting agent."""

import json
import os
import pathlib
import signal
import socket
import struct
import threading
import time
import zlib

import labnet
from labnet import until

SERVER = "/tmp/dxsmirel.03"
ABSENT = "10.1.0.77"
UNROUTED = "203.0.113.1"  # the router behind rt1 has no way there
REFRESH = 10  # seconds between two readings of the kernel's counters


def operations(system):
    return {row["id"]: row for row in json.loads(system.switch.ctl("ipsla", "show", "vrf", 3, "json"))}


def start(system, number, target, **settings):
    words = [word for pair in settings.items() for word in pair]
    system.switch.ctl("ipsla", "start", "vrf", 3, number, "to", target, *words)


def router_without_a_way(system):
    """The host behind rt1 forwards, and says that it cannot."""
    host = system.vrfs[0].host(1)
    labnet.run(*labnet.in_netns(host, "sh", "-c", "echo 1 > /proc/sys/net/ipv4/ip_forward"))
    labnet.ip("route", "add", "unreachable", "203.0.113.0/24", ns=host)
    system.switch.ctl("route", "add", "vrf", 3, "203.0.113.0/24", "via", "10.1.0.2", "interface", 301)
    labnet.until_mirrored(system.vrfs[0])


def test_outcomes():
    system = labnet.start_system()
    router_without_a_way(system)
    start(system, 1, "10.1.0.2", frequency=1, threshold=900, timeout=500)
    start(system, 2, ABSENT, frequency=1, timeout=300)
    start(system, 3, "10.1.0.2", frequency=1, threshold=0, timeout=500)
    start(system, 4, UNROUTED, frequency=1, timeout=900)
    start(system, 5, ABSENT, frequency=1, timeout=2000)  # the next request comes first: nothing to report
    start(system, 128, "10.1.0.2", **{"from": "10.1.0.1"}, frequency=1, timeout=500, size=13021)
    labnet.orrinctl("ipsla", "start", "vrf", 3, 128, "to", "10.1.0.3")  # a duplicate, refused: the first goes on
    until(lambda: min(operations(system)[number][column] for number, column in
                      ((1, "in-time"), (2, "failed"), (3, "late"), (4, "failed"), (128, "in-time"))) >= 3,
          15, lambda: f"each has its outcome: {operations(system)}")
    rows = operations(system)
    assert 300000 <= rows[2]["us"] < 900000 and rows[2]["ms"] == 0, rows[2]
    assert rows[4]["us"] < 300000, rows[4]  # at once, not after the time-out
    assert rows[2]["in-time"] == rows[2]["late"] == rows[4]["in-time"] == rows[4]["late"] == rows[1]["late"] == 0, rows
    assert [rows[5][column] for column in ("in-time", "failed", "late")] == [0, 0, 0], rows[5]

    system.agents[0].kill()
    system.agents[0].start()
    system.agents[0].start_probes()
    before = operations(system)[1]["in-time"]
    until(lambda: operations(system)[1]["in-time"] >= before + 2, 10, "a new agent probes")
    for number in rows:
        system.switch.ctl("ipsla", "stop", "vrf", 3, number)
    task_ended = lambda: "ipsla" not in system.switch.ctl("dump") and sockets_of(system.agents[0], "raw") == 0  # noqa: E731
    until(task_ended, 5, "nothing is left of them")


def sockets_of(agent, kind):
    rows = pathlib.Path(f"/proc/{agent.pid}/net/{kind}").read_text().splitlines()[1:]
    inodes = {f"socket:[{row.split()[9]}]" for row in rows}
    folder = f"/proc/{agent.pid}/fd"
    return sum(os.readlink(f"{folder}/{fd}") in inodes for fd in os.listdir(folder))


def kernel_counters(vrf):
    """MIB-II name -> value, from the kernel of the VRF's namespace."""
    text = labnet.run(*labnet.in_netns(vrf.name, "cat", "/proc/net/snmp")).splitlines()
    counters = {}
    for names, values in zip(text[::2], text[1::2]):
        group = names.split()[0].rstrip(":").lower()
        counters |= {group + name: int(value) for name, value in zip(names.split()[1:], values.split()[1:])}
    return counters


def served(system):
    rows = json.loads(system.switch.ctl("stats", "vrf", 3, "json"))
    return {row["name"]: row["value"] for row in rows if row["name"] != "-"}


def test_every_counter():
    """Traffic of many kinds, then silence until the agent has read the counters: each is what the kernel's own file says."""
    system = labnet.start_system()
    vrf, near, far = system.vrfs[0], system.vrfs[0].host(1), system.vrfs[0].host(2)
    router_without_a_way(system)
    for command in (("ping", "-c3", "-i0.1", "10.1.0.1"), ("ping", "-c2", "-i0.1", "10.2.0.2"), ("ping", "-c1", "-W1", "10.2.0.99"),
                    ("ping", "-c1", "-t1", "10.2.0.2"), ("ping", "-c2", "-i0.1", "-s4000", "10.1.0.1"),
                    ("ping", "-c1", "-W1", "198.51.100.1")):
        labnet.subprocess.run(labnet.in_netns(near, *command), capture_output=True)
    labnet.subprocess.run(labnet.in_netns(vrf.name, "ping", "-c1", "-W1", UNROUTED), capture_output=True)
    labnet.subprocess.run(labnet.in_netns(vrf.name, "ping", "-c1", "-W1", "192.0.2.200"), capture_output=True)
    labnet.subprocess.run(labnet.in_netns(far, "ping", "-c2", "-i0.1", "10.1.0.2"), capture_output=True)
    assert served(system)["ipInReceives"] == 0  # the first reading comes after ten seconds
    time.sleep(2)
    until(lambda: served(system)["ipInReceives"] != 0, REFRESH + 5, "the agent reads the counters")

    def differences():
        kernel = kernel_counters(vrf)
        return {name: (value, kernel[name]) for name, value in served(system).items() if value != kernel[name]}

    until(lambda: not differences(), 2 * REFRESH, lambda: f"all are equal: {differences()}")
    values = served(system)
    moved = [name for name, value in values.items() if value]
    assert len(values) == 41 and len(moved) >= 15, moved


def request(number, procedure, *arguments):
    offsets, area = [], b""
    for data in (bytes(4), *arguments):
        offsets.append(len(area))
        area += struct.pack("=i", len(data)) + data
    length = 120 + len(area) + 4
    head = struct.pack("=IIIQiQI", length, 0, procedure, number, 0, 0, len(offsets))
    head += b"".join(struct.pack("=I", offset) for offset in offsets)
    body = head.ljust(120, b"\0") + area
    return body + struct.pack("=I", zlib.crc32(body))


def word(value):
    return struct.pack("=I", value)


class Questioner(threading.Thread):
    """Asks the agent for counters and probes as fast as it answers, whether it is there or not."""

    def __init__(self):
        super().__init__()
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind("/tmp/dxctest.03")
        self.sock.settimeout(5)
        self.ended = threading.Event()
        self.absent = 0
        self.answers = {}  # (procedure, status, result) -> how many
        self.trouble = None

    def run(self):
        number = 0
        while not self.ended.is_set() and not self.trouble:
            number += 1
            procedure = 1 + number % 3
            probe = (word(3), word(9), word(0x0A010002), word(0), word(1), word(1000), word(500), word(32))
            arguments = {1: (word(3), word(0xF0000), word(0)), 2: probe, 3: probe[:2]}[procedure]
            self.ask(number, procedure, request(number, procedure, *arguments))

    def ask(self, number, procedure, message):
        try:
            self.sock.sendto(message, SERVER)
        except (FileNotFoundError, ConnectionRefusedError):
            self.absent += 1
            time.sleep(0.0005)
            return
        try:
            reply = self.sock.recv(65536)
        except TimeoutError:
            self.trouble = f"no answer to request {number}"
            return
        if len(reply) != len(message) - 4 or reply[12:20] != struct.pack("=Q", number):
            self.trouble = f"answer to request {number}: {reply.hex()}"
            return
        key = procedure, *struct.unpack_from("=i", reply, 20), *struct.unpack_from("=I", reply, 124)
        self.answers[key] = self.answers.get(key, 0) + 1


def test_requests_to_a_starting_agent():
    """From before its socket exists until long after its start-up: each is answered, none does harm."""
    vrf = labnet.make_vrf(3, "blue")
    switch = labnet.Switch(labnet.vrf_script(vrf))  # without routing: start-up takes its time
    agent = labnet.Agent(vrf)
    questioner = Questioner()
    questioner.start()
    try:
        time.sleep(0.2)
        agent.child = None
        labnet.Process.start(agent)  # the switch is not there yet: the agent waits for it
        until(lambda: questioner.answers.get((2, 0, 1), 0) > 100, 10, lambda: f"refused controls: {questioner.answers}")
        assert (2, 0, 0) not in questioner.answers and (3, 0, 0) not in questioner.answers
        switch.start()
        switch.ctl("vrf", "set", 3, "routing", "on")
        until(lambda: questioner.answers.get((2, 0, 0), 0) > 100, 15, lambda: f"accepted controls: {questioner.answers}")
    finally:
        questioner.ended.set()
        questioner.join()
    assert not questioner.trouble and agent.running(), questioner.trouble
    assert questioner.absent > 0 and questioner.answers.get((1, 0, 0), 0) > 100, questioner.answers
    assert set(questioner.answers) <= {(1, 0, 0), (2, -7, 0), (1, -7, 0), (3, -7, 0), (2, 0, 1), (3, 0, 1), (2, 0, 0), (3, 0, 0)}, \
        questioner.answers
    labnet.until_mirrored(vrf)
    assert agent.kill(signal.SIGTERM) == -signal.SIGTERM
