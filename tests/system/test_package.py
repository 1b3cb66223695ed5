"""The Debian package: made from the release build, installed into a fresh copy of this machine's file system, and used there
as the manual says. Runs once in ./check, since it is the release build that is packaged."""

import json
import os
import pathlib
import re
import subprocess

import labnet
from labnet import run, until

BUILD = labnet.BIN.parent
ROOT = pathlib.Path("/tmp/root")
MANUALS = {"mirel": 8, "orrin": 8, "mirelsh": 1, "orrinctl": 1, "test_app": 8}

# The example of mirel(8) without a service manager.
EXAMPLE = """\
vrf add 3 blue interface blue netns vrf-3
interface add 301 vrf 3 name 1/3/1 device rt1
interface set 301 address 10.1.0.1/24
interface enable 301
vrf set 3 routing on
"""


def fresh_root():
    """The machine's own file system below, what is written on top of it; whoever enters has the sandbox's namespaces."""
    layers = pathlib.Path("/tmp/layers")
    for folder in (ROOT, layers):
        folder.mkdir()
    run("mount", "-t", "tmpfs", "layers", layers)
    for folder in ("upper", "work"):
        (layers / folder).mkdir()
    run("mount", "-t", "overlay", "root", "-o", f"lowerdir=/,upperdir={layers}/upper,workdir={layers}/work", ROOT)
    for folder in ("tmp", "run"):
        run("mount", "-t", "tmpfs", folder, ROOT / folder)
    run("mount", "-t", "proc", "proc", ROOT / "proc")
    run("mount", "--rbind", "/dev", ROOT / "dev")


# Nothing of the sandbox's own: the build lies below the new root too, and its programs must not be found there.
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}


def inside(*command, **options):
    return run("chroot", ROOT, *command, env=ENVIRONMENT, **options)


def in_background(name, *command):
    environment = [f"{variable}={value}" for variable, value in ENVIRONMENT.items()]
    process = labnet.Process(name, ["chroot", ROOT, "env", "-i", *environment, *command])
    process.start()
    return process


def manuals_are_complete():
    for name, section in MANUALS.items():
        page = f"/usr/share/man/man{section}/{name}.{section}"
        for check in (["mandoc", "-T", "lint", "-W", "warning", page], ["groff", "-mandoc", "-ww", "-T", "utf8", "-z", page]):
            done = subprocess.run(["chroot", ROOT, *check], capture_output=True, text=True)
            complaints = [line for line in (done.stdout + done.stderr).splitlines() if "mandoc.db" not in line]
            assert not complaints
    text = inside("man", "mirel")
    for line in inside("mirelsh", "3", "help").splitlines()[1:]:
        assert line.split()[0] in text
    for counter in json.loads(inside("mirelsh", "--json", "3", "mirelStatsShow")):
        assert counter in text
    commands = re.sub(r"\s+", " ", inside("man", "orrinctl"))
    grammar = inside("orrinctl", "help").partition("\n\n")[2]
    for command in re.findall(r"^[a-z].*", grammar, re.M):
        first = re.match(r"[a-z]+( [a-z-]+(?=[ |]|$))?", command)[0]
        assert first in commands, f"{first} in orrinctl(1)"


def test_package_installs_and_works():
    umask = os.umask(0o077)
    run("cpack", "--config", BUILD / "CPackConfig.cmake", "-B", "/tmp/package", cwd="/tmp")
    os.umask(umask)
    fresh_root()
    (package,) = pathlib.Path("/tmp/package").glob("*.deb")
    modes = {line.split()[0] for line in run("dpkg-deb", "--contents", package).splitlines()}
    assert modes <= {"drwxr-xr-x", "-rwxr-xr-x", "-rw-r--r--"}
    assert "net-tools" in run("dpkg-deb", "--field", package, "Depends")
    (ROOT / "tmp" / "mirel.deb").write_bytes(package.read_bytes())
    inside("dpkg", "--path-include=/usr/share/man/*", "--install", "/tmp/mirel.deb")  # slim images leave manuals out
    assert inside("systemd-analyze", "verify", "mirel@3.service") == ""
    exposure = inside("systemd-analyze", "security", "--offline=true", "--threshold=35", "mirel@3.service")
    assert "CAP_NET_ADMIN" in exposure

    inside("ip", "netns", "add", "vrf-3")
    inside("ip", "link", "add", "rt1", "netns", "vrf-3", "type", "veth", "peer", "name", "host1")
    in_background("orrin", "orrin")
    until(lambda: (ROOT / "run/orrin/api.control").exists(), 10, "orrin listens")
    inside("orrinctl", "-", input=EXAMPLE)
    agent = in_background("agent", "ip", "netns", "exec", "vrf-3", "mirel", "mirel-3")
    until(lambda: "mirel mirel-3" in inside("mirelsh", "--list"), 10, lambda: f"the agent runs: {agent.said()}")
    until(lambda: "10.1.0.1/24" in inside("ip", "-n", "vrf-3", "-br", "addr"), 10, "the interface is mirrored")
    libraries = {line.split()[-1] for line in open(f"/proc/{agent.pid}/maps") if "lib/mirel" in line}
    assert {pathlib.Path(each).name for each in libraries} == {"libqvproc.so", "libtarnapi.so"}
    manuals_are_complete()

    # As on a machine whose service manager does not answer.
    enabled = ROOT / "etc/systemd/system/multi-user.target.wants/mirel@3.service"
    inside("systemctl", "enable", "mirel@3")
    assert enabled.is_symlink()
    (ROOT / "run/systemd/system").mkdir(parents=True)
    inside("dpkg", "--purge", "mirel")
    assert not enabled.is_symlink()
    assert not (ROOT / "usr/lib/mirel").exists() and not (ROOT / "usr/sbin/mirel").exists()
