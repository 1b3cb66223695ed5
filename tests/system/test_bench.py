"""The bench measures what it says: a small run of each, and a clock that does not believe in lost changes."""

import json
import pathlib
import subprocess
from xml.etree import ElementTree

import labnet


def quick_run(only, *options):
    """The table's lines and what the benches found."""
    done = subprocess.run([labnet.ROOT / "bench" / "run", "--quick", "--only", only, "--json", "/tmp/found", *options], text=True,
                          capture_output=True)
    assert done.returncode == 0, done.stdout + done.stderr
    return json.loads(pathlib.Path("/tmp/found").read_text())


def test_routes_are_measured_and_plotted():
    found = quick_run("routes", "--sizes", "200,1000", "--plot", "/tmp/plot.svg")
    measured = {line["peer name"] for line in found["table"] if line["ratio"]}
    assert {"raw", "pipelined", "ip -batch"} <= measured
    # A daemon that is not there is in the table all the same, with the reason.
    assert all(line["ratio"] or line["absent"] for line in found["table"]) and len(found["table"]) == 30
    shapes = [shape.tag.rpartition("}")[2] for shape in ElementTree.parse("/tmp/plot.svg").iter()]
    assert shapes.count("polyline") == 3 * (1 + len(measured)) and shapes.count("circle") == 2 * shapes.count("polyline")


def test_everything_else_is_measured():
    found = quick_run("interfaces,import,probes,rpc,neighbours,agent")
    by_name = {line["measure"]: line for line in found["table"]}
    for name, line in by_name.items():
        assert line["agent"] and (line["ratio"] or not line["peer name"]), name
        assert line["agent"]["lowest"] <= line["agent"]["median"] <= line["agent"]["highest"], name
    assert all((line["met"] is None) == (line["goal"] is None) for line in by_name.values())
    assert by_name["foreign routes lost beside own"]["agent"]["median"] == 0
    shares = found["benches"]["interfaces"]["measures"]["enable, of its time"]["programs"]
    assert 99 < sum(share["median"] for share in shares.values()) < 101


def test_a_missing_and_an_unexpected_change_are_failures():
    vrf = labnet.make_vrf(3, "blue", links=1)
    labnet.dress(vrf, links=1)
    for first, expected, added, complaint in (("16.0.0.0/24", 2, 1, "changes are missing: 1 additions of 2"),
                                              ("17.0.0.0/24", 1, 2, "other changes than expected")):
        watcher = subprocess.Popen(labnet.in_netns(vrf.name, labnet.BIN / "route_watch", expected, 0, 1), text=True,
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        assert watcher.stdout.readline() == "ready\n"
        labnet.run(*labnet.in_netns(vrf.name, labnet.BIN / "route_raw", "add", first, added, "via", "10.1.0.2", "dev", "rt1"))
        _, said = watcher.communicate(timeout=20)
        assert watcher.returncode == 1 and complaint in said
