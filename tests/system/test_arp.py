"""Neighbours, both ways: what the kernel finds out reaches the switch, and what only the switch knows reaches the kernel in
time for the first packet."""

import ctypes
import json
import os
import socket
import struct
import subprocess
import time

import labnet
from labnet import until, until_all_mirrored

NOBODY = "02:00:00:00:00:50"
UNKNOWN_HOST = "10.1.0.50"
ETH_P_ALL, ETH_P_IP, ETH_P_ARP = 3, 0x0800, 0x0806
CLONE_NEWNET = 0x40000000


def socket_in(namespace, *kind):
    """A socket that belongs to the namespace; the caller stays where it is."""
    libc = ctypes.CDLL(None, use_errno=True)
    home = os.open("/proc/self/ns/net", os.O_RDONLY)
    there = os.open(f"/run/netns/{namespace}", os.O_RDONLY)
    try:
        assert libc.setns(there, CLONE_NEWNET) == 0, os.strerror(ctypes.get_errno())
        return socket.socket(*kind)
    finally:
        assert libc.setns(home, CLONE_NEWNET) == 0
        os.close(there)
        os.close(home)


def capture(namespace, device):
    frames = socket_in(namespace, socket.AF_PACKET, socket.SOCK_RAW, socket.htons(ETH_P_ALL))
    frames.bind((device, ETH_P_ALL))
    frames.settimeout(5)
    return frames


def drained(sock):
    """What the socket has taken."""
    sock.setblocking(False)
    taken = []
    while True:
        try:
            taken.append(sock.recv(65536))
        except BlockingIOError:
            return taken


def is_of(frame, protocol):
    return frame[12:14] == struct.pack("!H", protocol)


def is_arp_request(frame, address):
    return is_of(frame, ETH_P_ARP) and frame[20:22] == b"\0\1" and frame[38:42] == socket.inet_aton(address)


def on_switch(system):
    """address -> (origin, MAC, device)"""
    return {entry["address"]: (entry["origin"], entry["mac"], entry["device"])
            for entry in json.loads(system.switch.ctl("show", "arp", "vrf", 3, "json"))}


def until_on_switch(system, neighbours):
    until(lambda: on_switch(system) == neighbours, 5, lambda: f"the switch knows {neighbours}, not {on_switch(system)}")


def in_kernel(vrf, address):
    found = labnet.ip_json("neigh", "show", "to", address, ns=vrf.name)
    return found[0].get("lladdr") if found else None


def counter(agent, name):
    line = next(line for line in agent.sh("mirelStatsShow").splitlines() if line.startswith(name + ":"))
    return int(line.split()[-1])


def test_neighbours_of_the_kernel_reach_the_switch_and_go():
    system = labnet.start_system()
    blue = system.vrfs[0]
    host_mac = labnet.ip_json("link", "show", "eth0", ns=blue.host(1))[0]["address"]
    ping = labnet.in_netns(blue.host(1), "ping", "-c1", "-W1", "10.1.0.1")
    until(lambda: subprocess.run(ping, capture_output=True).returncode == 0, 10, "the host reaches its router")
    until_on_switch(system, {"10.1.0.2": ("kernel", host_mac, "rt1")})
    until_all_mirrored(blue)

    # Another MAC, neighbours of two links, neighbours that go.
    labnet.ip_batch(["neigh replace 10.1.0.3 lladdr 02:00:00:00:00:03 dev rt1",
                     "neigh replace 10.1.0.3 lladdr 02:00:00:00:00:33 dev rt1",
                     "neigh replace 10.2.0.4 lladdr 02:00:00:00:00:04 dev rt2",
                     "neigh replace 10.1.0.5 lladdr 02:00:00:00:00:05 dev rt1",
                     "neigh del 10.1.0.5 dev rt1", "neigh del 10.1.0.2 dev rt1"], ns=blue.name)
    until_on_switch(system, {"10.1.0.3": ("kernel", "02:00:00:00:00:33", "rt1"),
                             "10.2.0.4": ("kernel", "02:00:00:00:00:04", "rt2")})
    until_all_mirrored(blue)


def test_neighbours_go_with_their_link():
    """At once: more than an ordinary socket has room for."""
    system = labnet.start_system()
    blue = system.vrfs[0]
    lines = [f"neigh replace 10.{number}.0.{last} lladdr 02:00:00:00:0{number}:{last:02x} dev rt{number} nud reachable"
             for number in (1, 2) for last in range(50, 230)]
    labnet.ip_batch(lines, ns=blue.name)
    until(lambda: len(on_switch(system)) == 360, 10, lambda: f"all are known: {len(on_switch(system))}")
    until_all_mirrored(blue)
    labnet.ip("link", "set", "rt1", "down", ns=blue.name)
    until(lambda: {device for _, _, device in on_switch(system).values()} == {"rt2"}, 10, "those of the link have gone")
    assert len(on_switch(system)) == 180
    assert labnet.differences(blue, ("neighbours",)) == ""


def test_a_question_of_the_kernel_is_answered_by_the_switch():
    """The switch has learned a neighbour, the kernel has forgotten it, and nobody answers ARP requests for it. The kernel asks
    user space before it sends anything, and the waiting packet leaves with the MAC that the switch knows."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    system.switch.ctl(*f"arp learn vrf 3 {UNKNOWN_HOST} mac {NOBODY} interface 301".split())
    until(lambda: in_kernel(blue, UNKNOWN_HOST) == NOBODY, 5, "the resolution is in the kernel")
    labnet.ip("neigh", "del", UNKNOWN_HOST, "dev", "rt1", ns=blue.name)
    until(lambda: in_kernel(blue, UNKNOWN_HOST) is None, 5, "the kernel has forgotten it")
    asked, resolved = counter(agent, "Arp Reqs"), counter(agent, "Arp Resolves")

    frames = capture(blue.host(1), "eth0")
    sender = socket_in(blue.host(2), socket.AF_INET, socket.SOCK_DGRAM)
    sender.sendto(b"a packet", (UNKNOWN_HOST, 9))
    while not (is_of(frame := frames.recv(65536), ETH_P_IP) and frame[30:34] == socket.inet_aton(UNKNOWN_HOST)):
        assert not is_arp_request(frame, UNKNOWN_HOST), "the kernel asked the link before the switch"
    assert frame[:6].hex(":") == NOBODY
    until(lambda: (counter(agent, "Arp Reqs"), counter(agent, "Arp Resolves")) == (asked + 1, resolved + 1), 5,
          "both are counted, the answer after the packet has left")
    assert on_switch(system)[UNKNOWN_HOST] == ("switch", NOBODY, "rt1")

    # Nobody knows this one: user space is asked first, then the link, and nothing stands in the way.
    sender.sendto(b"another", ("10.1.0.51", 9))
    while not is_arp_request(frames.recv(65536), "10.1.0.51"):
        pass
    assert counter(agent, "Arp Req Errors") == 0
    until_all_mirrored(blue)


def test_the_first_packet_goes_at_once_and_a_dead_host_is_left_alone():
    """Not after the second that the kernel would wait, and not at the price of more than three requests in four seconds."""
    system = labnet.start_system()
    blue = system.vrfs[0]
    frames = capture(blue.host(1), "eth0")
    sender = socket_in(blue.name, socket.AF_INET, socket.SOCK_DGRAM)
    delays = []
    for packet in (b"first", b"second", b"third"):  # the host's port unreachable ends with it too
        labnet.ip("neigh", "flush", "dev", "rt1", ns=blue.name)
        begin = time.monotonic()
        sender.sendto(packet, ("10.1.0.2", 9))
        while not frames.recv(65536).endswith(packet):
            pass
        delays.append(time.monotonic() - begin)
    assert min(delays) <= 0.2, delays

    begin = time.monotonic()
    sender.sendto(b"in vain", (UNKNOWN_HOST, 9))
    until(lambda: labnet.ip_json("neigh", "show", "to", UNKNOWN_HOST, "nud", "failed", ns=blue.name), 10, "the kernel gives up")
    requests = [frame for frame in drained(frames) if is_arp_request(frame, UNKNOWN_HOST)]
    assert len(requests) == 3 and time.monotonic() - begin >= 4


def test_an_entry_asked_for_is_in_the_kernel_and_nowhere_else():
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    entry = f"arp add vrf 3 {UNKNOWN_HOST} mac {NOBODY} interface".split()
    system.switch.ctl(*entry, 301)
    assert in_kernel(blue, UNKNOWN_HOST) == NOBODY
    refused = labnet.orrinctl(*entry, 999)
    assert refused.returncode == 1 and "the agent of VRF 3 refused it" in refused.stderr
    agent.kill()
    gone = labnet.orrinctl(*entry, 301)
    assert gone.returncode == 1 and "the agent of VRF 3" in gone.stderr
    assert "arp" not in system.switch.ctl("dump")


def test_no_echo_of_what_the_agent_writes():
    """What the agent writes is announced to itself, and neither agent, switch nor kernel makes anything new of it."""
    system = labnet.start_system()
    blue, agent = system.vrfs[0], system.agents[0]
    announcements = socket_in(blue.name, socket.AF_NETLINK, socket.SOCK_RAW, socket.NETLINK_ROUTE)
    announcements.bind((0, 4))  # RTMGRP_NEIGH
    frames = capture(blue.host(1), "eth0")
    addresses = [f"10.1.0.{last}" for last in range(50, 60)]
    system.switch.script_in([f"arp learn vrf 3 {address} mac {NOBODY} interface 301" for address in addresses])
    until(lambda: all(in_kernel(blue, address) == NOBODY for address in addresses), 5, "all resolutions are in the kernel")
    time.sleep(1)  # for a storm to show
    of_ours = [message for message in drained(announcements) if message[16] == socket.AF_INET]
    assert len(of_ours) <= 2 * len(addresses)
    assert counter(agent, "Arp Resolves") == len(addresses) and counter(agent, "Kernel Arp Adds processed") == 0
    assert counter(agent, "Kernel Arp Adds received") == len(of_ours)
    assert not [frame for frame in drained(frames) if is_of(frame, ETH_P_ARP)]
    assert {origin for origin, _, _ in on_switch(system).values()} == {"switch"}
