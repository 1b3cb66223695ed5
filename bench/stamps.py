"""The notes that agent_stamps.cpp makes inside an agent, and how an agent is started with it in front of its libraries."""

import mmap
import os
import pathlib
import struct
import subprocess
import time

from measure import Failure, labnet

NEIGHBOURS_MAX = 4096
HEAD, NEIGHBOUR = struct.Struct("QQQ"), struct.Struct("QQ")  # first wait of the loop, time in shells, count; address, known
COUNT_AT = 16
BEGAN = struct.Struct("Q")
LOOPING_WITHIN = 30


class Stamps:
    def __init__(self, name):
        self.path = pathlib.Path(f"/tmp/{name}.stamps")
        self.path.write_bytes(bytes(HEAD.size + NEIGHBOURS_MAX * NEIGHBOUR.size))
        with self.path.open("r+b") as file:
            self.memory = mmap.mmap(file.fileno(), 0)

    def looping(self):
        return HEAD.unpack_from(self.memory)[0]

    def in_shells(self):
        """Seconds."""
        return HEAD.unpack_from(self.memory)[1] / 1e9

    def neighbours(self):
        """Address -> when the switch had it, nanoseconds of the monotonic clock; of each the first time."""
        known = {}
        for place in range(HEAD.unpack_from(self.memory)[2]):
            address, when = NEIGHBOUR.unpack_from(self.memory, HEAD.size + place * NEIGHBOUR.size)
            known.setdefault(address, when)
        return known

    def forget_neighbours(self):
        struct.pack_into("Q", self.memory, COUNT_AT, 0)


class StampedAgent(labnet.Process):
    """Enters the namespace in the new process itself: `ip netns exec` would take longer than the agent's start."""

    def __init__(self, vrf):
        super().__init__(f"mirel-{vrf.id}", [labnet.BIN / "mirel", f"mirel-{vrf.id}"])
        self.vrf, self.stamps = vrf, Stamps(f"mirel-{vrf.id}")

    def start(self):
        """Returns the seconds from right before exec() until the agent waits in its loop. Forking Python is not the agent's."""
        environment = {**os.environ, "LD_PRELOAD": str(labnet.BIN / "agent_stamps.so"), "AGENT_STAMPS": str(self.stamps.path)}
        namespace = os.open(f"/run/netns/{self.vrf.name}", os.O_RDONLY | os.O_CLOEXEC)
        began = mmap.mmap(-1, BEGAN.size)  # shared with the child

        def enter():
            labnet.enter_netns(namespace)
            BEGAN.pack_into(began, 0, time.monotonic_ns())

        with self.log.open("ab") as out:
            self.child = subprocess.Popen(self.command, stdin=subprocess.DEVNULL, stdout=out, stderr=out, env=environment,
                                          start_new_session=True, preexec_fn=enter)
        os.close(namespace)
        labnet.until(self._loops, LOOPING_WITHIN, lambda: f"{self.name} waits in its loop; it said:\n{self.said()}")
        return (self.stamps.looping() - BEGAN.unpack_from(began)[0]) / 1e9

    def _loops(self):
        if not self.running():
            raise Failure(f"{self.name} ended by itself; it said:\n{self.said()}")
        return self.stamps.looping()
