"""The bench measures what it says: a small run of each, and a clock that does not believe in lost changes."""

import subprocess

import labnet


def test_all_three_are_measured():
    done = subprocess.run([labnet.ROOT / "bench" / "routes", "--count", "400", "--runs", "1", "--programs", "mirel,raw,ip"], text=True, capture_output=True)
    assert done.returncode == 0, done.stderr
    for row in ("add", "modify", "withdraw"):
        cells = [line.split() for line in done.stdout.splitlines() if line.strip().startswith(row)]
        assert [len(line) for line in cells] == [4, 3], done.stdout  # rates of three programs, ratios to two


def test_interfaces_are_measured():
    done = subprocess.run([labnet.ROOT / "bench" / "interfaces", "--count", "20", "--runs", "1"], text=True, capture_output=True)
    assert done.returncode == 0, done.stderr
    for row in ("enable", "change", "disable"):
        rates, shares = [line.split() for line in done.stdout.splitlines() if line.strip().startswith(row)]
        spent = [int(word) for word in shares[1::2] if word.isdigit()]
        assert 0.0 < float(rates[1].replace(",", "")) and sum(spent) in (99, 100, 101), done.stdout


def test_probes_and_calls_are_measured():
    done = subprocess.run([labnet.ROOT / "bench" / "probes", "--rounds", "3", "--runs", "1"], text=True, capture_output=True)
    assert done.returncode == 0, done.stderr
    rows = {line.split()[0]: [float(word) for word in line.split()[-3:]] for line in done.stdout.splitlines()
            if line.strip().startswith(("median", "99 %", "longest"))}
    assert len(rows) == 3 and all(value > 0 for row in rows.values() for value in row), done.stdout
    done = subprocess.run([labnet.ROOT / "bench" / "rpc", "--requests", "2000", "--runs", "1"], text=True, capture_output=True)
    assert done.returncode == 0 and float(done.stdout.split("agent / echo, run by run")[1].split()[0]) > 0, done.stderr


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
