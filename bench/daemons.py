"""Peers of bench/routes: the routing daemons bird and frr, when they are installed, with static routes from generated
configurations. They run in a namespace without an agent, which would report their routes to the switch.

As for the agent, the time from the first to the last change in the kernel is all that counts: reading its configuration is
not held against a daemon unless it is read while routes are installed already, as `vtysh` does, one command at a time.
"""

import pathlib
import shutil
import subprocess

from measure import labnet

FRR = pathlib.Path("/usr/lib/frr")
FRR_ROUTES_MAX = 10_000  # beyond, staticd takes many minutes for its commands
READY_SECONDS = 10


class Bird:
    name, protocol, idle_seconds = "bird", 12, 60
    replaces = True  # a changed route is announced as one addition

    def __init__(self, work, namespace, gateways, device):
        self.folder, self.namespace, self.children = pathlib.Path("/tmp/bird"), namespace, []
        self.folder.mkdir()
        for phase, gateway in gateways.items():
            lines = [f"route {prefix} via {gateway};" for prefix in work.prefixes()] if phase != "withdraw" else []
            self._write(phase, lines)
        self._write("empty", [])

    @staticmethod
    def absent(work):
        return None if shutil.which("bird") and shutil.which("birdc") else "not installed"

    def _write(self, name, routes):
        # A scan of the kernel's table in the middle of a phase would be held against it.
        head = ["router id 10.1.0.1;", "protocol device { scan time 3600; }",
                "protocol kernel { scan time 3600; ipv4 { import none; export all; }; }", "protocol static { ipv4;"]
        (self.folder / name).write_text("\n".join([*head, *routes, "}", ""]))

    def start(self):
        self.children = [labnet.Process("bird", labnet.in_netns(self.namespace, "bird", "-f", "-c", self.folder / "empty",
                                                                "-s", self.folder / "control"))]
        self.children[0].start()
        labnet.until(lambda: self._control("show", "status").returncode == 0, READY_SECONDS, "bird answers")

    def _control(self, *words):
        return subprocess.run(["birdc", "-s", str(self.folder / "control"), *words], capture_output=True)

    def command(self, phase):
        return ["birdc", "-s", str(self.folder / "control"), "configure", f'"{self.folder / phase}"']


class Frr:
    name, protocol, idle_seconds = "frr", 196, 300  # staticd may think for minutes before the first change
    replaces = False

    def __init__(self, work, namespace, gateways, device):
        self.folder, self.namespace, self.children = pathlib.Path("/run/frr"), namespace, []
        old, new = gateways["add"], gateways["modify"]
        lines = {"add": ["ip route {prefix} {old} {device}"],
                 "modify": ["no ip route {prefix} {old} {device}", "ip route {prefix} {new} {device}"],
                 "withdraw": ["no ip route {prefix} {new} {device}"]}
        self.folder.mkdir()
        for phase, forms in lines.items():
            with (self.folder / phase).open("w") as out:
                for prefix in work.prefixes():
                    out.writelines(form.format(prefix=prefix, old=old, new=new, device=f"{device} onlink") + "\n"
                                   for form in forms)
        (self.folder / "empty").write_text("")
        shutil.chown(self.folder, "frr", "frr")
        # Its logs for crashes go there, and would stay.
        labnet.run("mount", "-t", "tmpfs", "-o", "mode=1777", "tmpfs", "/var/tmp")

    @staticmethod
    def absent(work):
        if not (FRR / "staticd").exists() or not shutil.which("vtysh"):
            return "not installed"
        return f"only up to {FRR_ROUTES_MAX:,}" if work.count > FRR_ROUTES_MAX else None

    def start(self):
        for daemon in ("zebra", "staticd"):
            command = [FRR / daemon, "-f", self.folder / "empty", "-i", self.folder / f"{daemon}.pid",
                       "-z", self.folder / "zserv.api", "--vty_socket", self.folder, "-P", "0"]
            child = labnet.Process(f"frr-{daemon}", labnet.in_netns(self.namespace, *command))
            child.start()
            self.children.append(child)
            labnet.until((self.folder / f"{daemon}.vty").exists, READY_SECONDS, f"{daemon} listens")
        labnet.until(self._knows_device, READY_SECONDS, "zebra knows the device")

    def _knows_device(self):
        shown = subprocess.run(["vtysh", "--vty_socket", str(self.folder), "-c", "show interface brief"], text=True,
                               capture_output=True)
        return "rt1" in shown.stdout

    def command(self, phase):
        return ["vtysh", "--vty_socket", str(self.folder), "-f", str(self.folder / phase)]
