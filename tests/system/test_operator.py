"""What an operator sees of a running agent: its debug operations, its appetite, its command line and its binary."""

import json
import os
import re
import select
import subprocess
import time

import labnet
from labnet import until, until_mirrored

VIA_1 = "via 10.1.0.2 interface 301"
NO_KERNEL_ROUTES = "vrf set 3 kernel-routes 0"  # the connected ones, which the agent reports, would be counted with the rest

STATS = """
#### mirel stats ####
Arp Req Errors:            0 
Arp Reqs:                  0 
Arp Resolve Errors:        0 
Arp Resolves:              0 
Kernel Arp Adds received:  0 
Kernel Arp Dels received:  0 
Kernel Arp Adds processed: 0 
Kernel Arp Dels processed:  0 
Routes Added:              {added} 
Route Add Errors:          0 
Routes Deleted:            {deleted} 
Route Delete Errors:       0 
Routes Modified:           {modified} 
Route Modify Errors:       0 
RPC Errors:                0 
Stack errors:              0 
Active Routes:             {active} 
Rtr Event Client Timeouts: 0 
Best Rt Client Timeouts:   0 
"""


def test_statistics_after_a_known_number_of_routes():
    system = labnet.start_system(script=[NO_KERNEL_ROUTES])
    blue, agent, ctl = system.vrfs[0], system.agents[0], system.switch.ctl
    assert agent.sh("mirelStatsShow") == STATS.format(added=0, deleted=0, modified=0, active=0)

    # A local route counts as added although the kernel never sees it.
    ctl(*f"routes add vrf 3 20.0.0.0/24 count 120 {VIA_1}".split())
    ctl(*"route add vrf 3 10.1.0.0/24 local via 10.1.0.1 interface 301".split())
    until_mirrored(blue)
    ctl(*"routes modify vrf 3 20.0.0.0/24 count 30 via 10.2.0.2 interface 302".split())
    until_mirrored(blue)
    ctl(*"routes del vrf 3 20.0.0.0/24 count 20".split())
    until_mirrored(blue)
    assert agent.sh("mirelStatsShow") == STATS.format(added=121, deleted=20, modified=30, active=101)

    counters = json.loads(agent.sh("mirelStatsShow", "--json"))
    assert counters["numRoutesAdded"] == 121 and counters["numActiveRoutes"] == 101
    assert list(counters.values()) == [int(each) for each in re.findall(r": +(\d+) $", agent.sh("mirelStatsShow"), re.M)]
    interfaces = json.loads(agent.sh("mirelIntIfInfoShow", 0, "--json"))
    assert interfaces[300] == {"intIfNum": 301, "intfName": "1/3/1", "stkIfName": "rt1",
                               "ipstkIfIndex": labnet.link_index("blue", "rt1")}

    agent.sh("mirelStatsClear")
    assert agent.sh("mirelStatsShow") == STATS.format(added=0, deleted=0, modified=0, active=101)


def test_event_counts_after_known_events():
    system = labnet.start_system()
    agent, ctl = system.agents[0], system.switch.ctl
    agent.sh("mirelStatsClear")
    for mtu in (1400, 1300, 1200):
        ctl("interface", "set", 301, "mtu", mtu)
    ctl(*"interface secondary 301 add 10.11.0.1/24".split())
    until_mirrored(system.vrfs[0], areas=("interfaces",))
    counted = {"TARNR_RTR_INTF_MTU": 3, "TARNR_RTR_INTF_ADDR_CHANGE": 1}
    names = ["ENABLE_PENDING", "DISABLE", "ADDR_CHANGE", "MTU", "BW_CHANGE", "CFG_CHANGE"]
    rows = [f"TARNR_RTR_INTF_{name}" for name in names]
    assert agent.sh("mirelIntfEventCountShow", 301) == "\n The number of events received on interface-301 for \n" + "".join(
        f"{row:<32}: {counted.get(row, 0)}\n" for row in rows)
    assert agent.sh("mirelEventCountShow", 111) == "\n The number of events received for \nthe given message type : 3\n"
    by_type = json.loads(agent.sh("mirelEventCountShow", 0, "--json"))
    assert {name: count for name, count in by_type.items() if count and name != "TARNR_KEEPALIVE"} == counted


def test_settings_and_refusals():
    system = labnet.start_system()
    agent = system.agents[0]
    agent.sh("mirelBestRoutePollTimeSet", 7)
    agent.sh("mirelBestRouteApplyTimeSet", "0x20")
    agent.sh("rtoDebugEnableAll")
    assert agent.sh("rtoDebugMaskGet") == "15\n"
    assert agent.sh("rtoDebugMaskSet", 15) == "\r\nAlready Enabled"
    shown = agent.sh("mirelBestRouteClientShow")
    assert "mirelBestRoutePollTime  : 7\n" in shown and "mirelBestRouteApplyTime : 32\n" in shown
    assert re.search(r"^brc_client_id             : [1-9]\d*$", shown, re.MULTILINE)
    assert agent.sh("mirelEventCountShow", 0).count("TARNR_") == 17

    for words in (["noSuchOperation"], ["mirelBestRoutePollTimeSet"], ["mirelBestRoutePollTimeSet", "soon"]):
        assert agent.operation(*words).returncode != 0, words
    nobody = subprocess.run([labnet.BIN / "mirelsh", "99", "mirelStatsShow"], capture_output=True, text=True)
    assert nobody.returncode != 0 and nobody.stderr
    assert agent.running()


COMPLETIONS = {"mirelsh ": {"3", "4", "--list", "--json", "--help"}, "mirelsh --json 4 rtoNetlinkStats": {"rtoNetlinkStatsShow",
               "rtoNetlinkStatsClear"}, "mirelsh 3 help mirelStatsC": {"mirelStatsClear"}, "mirelsh 9 mirelStatsC": set(),
               "mirelsh 3 mirelStatsShow ": {"--json"}}


def test_completion_and_the_prompt_on_a_terminal():
    labnet.start_system(["blue", "red"])
    script = labnet.ROOT / "packaging" / "mirelsh.bash-completion"
    for line, expected in COMPLETIONS.items():
        words = line.split(" ")
        complete = f"source {script}; COMP_WORDS=({' '.join(words[:-1])} '{words[-1]}'); COMP_CWORD={len(words) - 1}; " \
                   "_mirelsh; printf '%s\n' \"${COMPREPLY[@]}\""
        assert set(labnet.run("bash", "-c", complete).split()) == expected, line

    ours, theirs = os.openpty()
    shell = subprocess.Popen([labnet.BIN / "mirelsh", "4"], stdin=theirs, stdout=theirs, stderr=theirs,
                             env={**os.environ, "TERM": "dumb"})
    os.close(theirs)
    shown = b""

    def shows(text):
        nonlocal shown
        while text not in shown:
            assert select.select([ours], [], [], 10)[0], shown
            shown += os.read(ours, 4096)
        shown = shown.partition(text)[2]

    shows(b"mirel 4> ")
    os.write(ours, b"rtoDebugE\t\r")
    shows(b"mirel 4> ")
    os.write(ours, b"rtoDebugMaskG\t\r")
    shows(b"\n15\r\n")
    os.write(ours, b"rtoDebugMaskSet 15\r")
    shows(b"Already Enabled\r\n")
    os.write(ours, b"quit\r")
    assert shell.wait(10) == 0


def test_a_start_can_be_watched():
    os.environ["QVPROC_START_OPERATIONS"] = "mirelDebugFlagsSet 1; mirelDebugFlagsSet all; rtoDebugEnableAll"
    said = labnet.start_system().agents[0].said()
    assert '"mirelDebugFlagsSet all": usage: mirelDebugFlagsSet <mask>' in said
    traces = re.findall(r"^\[.*", said, re.M)
    assert "initialized the server addr:/tmp/dxsmirel.03" in traces[0], "the second trace of a start"
    assert "[blue (VRF 3)]:main: vrf-name:blue for vrf-id:3" in traces


def test_slow_reader_does_not_stop_the_agent():
    """An operator who looks at a page and does not scroll on: more output than any pipe holds, and nobody reads it."""
    system = labnet.start_system(script=[NO_KERNEL_ROUTES])
    blue, agent = system.vrfs[0], system.agents[0]
    slow = subprocess.Popen([labnet.BIN / "mirelsh", "3", "mirelIntIfInfoShow", "0"], stdout=subprocess.PIPE, text=True)
    assert slow.stdout.readline() == "\n"

    system.switch.ctl(*f"routes add vrf 3 20.0.0.0/24 count 200 {VIA_1}".split())
    until_mirrored(blue)
    assert "Routes Added:              200 \n" in agent.sh("mirelStatsShow")
    rest = slow.stdout.read()
    assert slow.wait(10) == 0
    assert rest.count("Interface(intIfNum)") == 1033


def processor_ticks(pid):
    fields = open(f"/proc/{pid}/stat").read().rpartition(")")[2].split()
    return int(fields[11]) + int(fields[12])


def test_reader_of_the_traces_stops_and_goes():
    """The agent goes on, with what there was no room for counted, and ends neither then nor when its reader has gone."""
    system = labnet.start_system()
    vrf, agent, switch = system.vrfs[0], system.agents[0], system.switch
    agent.kill()
    reading, writing = os.pipe()
    with agent.log.open("ab") as log:
        agent.child = subprocess.Popen(agent.command, stdin=subprocess.DEVNULL, stdout=writing, stderr=log, start_new_session=True)
    os.close(writing)
    until(lambda: agent.operation("mirelDebugFlagsSet", 7).returncode == 0, 15, "the agent starts")
    agent.quick()
    until_mirrored(vrf)
    for mtu in range(1300, 1400):
        switch.ctl("interface", "set", 301, "mtu", mtu)  # some kB of traces each
    until_mirrored(vrf)
    assert agent.sh("mirelDebugFlagsGet") == "7\n"
    first = os.read(reading, 1 << 20)
    switch.ctl("interface", "set", 301, "mtu", 1500)
    until_mirrored(vrf)
    assert re.search(rb"\n\[[1-9][0-9]* bytes of output dropped\]\n", os.read(reading, 1 << 20)) and len(first) > 60000
    os.close(reading)
    switch.ctl("interface", "set", 301, "mtu", 1400)
    until_mirrored(vrf)
    assert agent.running() and agent.sh("mirelDebugFlagsGet") == "7\n"


def test_idle_agent_uses_no_processor_time():
    system = labnet.start_system(script=[f"routes add vrf 3 20.0.0.0/24 count 1000 {VIA_1}"])
    agent = system.agents[0]
    until_mirrored(system.vrfs[0])
    agent.sh("mirelBestRoutePollTimeSet", 10)
    before, began = processor_ticks(agent.pid), time.monotonic()
    until(lambda: time.monotonic() - began > 3, 10, "three idle seconds")
    assert processor_ticks(agent.pid) - before <= 3 * os.sysconf("SC_CLK_TCK") // 100


def test_the_binary_exports_five_functions_and_lets_the_libraries_be_replaced():
    mirel = labnet.BIN / "mirel"
    functions = {line.split()[-1] for line in labnet.run("nm", "-D", "--defined-only", mirel).splitlines()
                 if line.split()[-2] in "TtWwi"}
    assert functions == {"osapiSemaMCreateTrack", "osapiSemaCCreateTrack", "osapiSemaTake", "osapiSemaGive", "osapiSemaDelete"}
    dynamic = labnet.run("readelf", "-dW", mirel)
    assert "(RUNPATH)" in dynamic and "(RPATH)" not in dynamic
    needed = set(re.findall(r"\(NEEDED\).*\[(.*)\]", dynamic))
    assert {"libtarnapi.so", "libqvproc.so"} <= needed


def test_a_switch_that_cannot_start_says_why_and_disturbs_nobody():
    switch = labnet.Switch(["vrf add 3 blue"])
    switch.start()
    elsewhere = "/run/elsewhere/api"
    for socket_path, state, status, complaint in (
            (None, "/run/other", 1, "another orrin answers there"),
            (elsewhere, labnet.Switch.STATE, 1, "another orrin"),
            ("/run/" + 110 * "x", "/run/other", 1, "is no path for a socket"),
            ("/proc/orrin/api", "/run/other", 1, "/proc/orrin/api.control: No such file"),
            (elsewhere, "/proc/state", 1, "/proc/state: "),
            (elsewhere, "/run/other too much", 2, "\"too\" is too much")):
        done = subprocess.run([labnet.BIN / "orrin", "--state", *state.split()], capture_output=True, text=True, timeout=10,
                              env={**os.environ, **({"ORRIN_SOCKET": socket_path} if socket_path else {})})
        assert done.returncode == status and complaint in done.stderr, (state, done)
    assert "vrf add 3 blue" in switch.ctl("dump") and switch.running()
