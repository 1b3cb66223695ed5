"""What the benches share: figures and how they are printed and written, and the way a bench is run: as root, in a sandbox,
with a clear word when it cannot.

A measure is one figure of several programs, run by run. Its JSON is, for each program, the values, their median, lowest and
highest, and the same of the ratio of the first program to each other one: only what ran side by side is compared.
"""

import argparse
import json
import os
import pathlib
import statistics
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "scripts"))
import labnet  # noqa: E402


class Failure(Exception):
    pass


# Figures -------------------------------------------------------------------------------------------------------------


def spread(values, form):
    values = sorted(values)
    middle, lowest, highest = (form.format(value) for value in (statistics.median(values), values[0], values[-1]))
    return middle if len(values) == 1 else f"{middle} ({lowest} to {highest})"


def percentile(values, share):
    return sorted(values)[min(len(values) - 1, int(len(values) * share))]


def summary(values):
    return {"median": statistics.median(values), "lowest": min(values), "highest": max(values), "values": list(values)}


class Figures:
    """All that one run of a bench found."""

    def __init__(self, bench, **about):
        self.found = {"bench": bench, **about, "measures": {}}

    def add(self, name, unit, **programs):
        """Values of each program, run by run; a program that could not be measured has None and the reason's text."""
        measured = {program: values for program, values in programs.items() if isinstance(values, list)}
        first, *others = measured
        self.found["measures"][name] = {
            "unit": unit, "programs": {program: summary(values) for program, values in measured.items()},
            "absent": {program: reason for program, reason in programs.items() if program not in measured},
            "ratios": {other: summary(self.ratios(measured[first], measured[other])) for other in others}}

    @staticmethod
    def ratios(ours, theirs):
        return [our / their for our, their in zip(ours, theirs) if their]

    def values(self, name, program):
        return self.found["measures"][name]["programs"][program]["values"]

    def ratio(self, name, other):
        """Of the first program to another, run by run."""
        return self.found["measures"][name]["ratios"][other]["values"]

    def write(self, file):
        json.dump(self.found, file, indent=1)
        file.write("\n")


def print_table(title, rows, width=31):
    """Rows of a label and cells; the first row holds the heads."""
    print(f"\n{title}")
    label_width = max(10, 1 + max(len(row[0]) for row in rows))
    for label, *cells in rows:
        print((f"  {label:<{label_width}}" + "".join(f"{cell:<{width}}" for cell in cells)).rstrip())


# Processes -----------------------------------------------------------------------------------------------------------


def stop(*processes):
    """Ends what the bench started, which must not have ended by itself."""
    for process in processes:
        if not process.running():
            raise Failure(f"{process.name} ended by itself; it said:\n{process.said()}")
        process.kill()


def processor_seconds(pid):
    """Of all threads of a process."""
    tasks = pathlib.Path(f"/proc/{pid}/task").iterdir()
    return sum(int((task / "schedstat").read_text().split()[0]) for task in tasks) / 1e9


def pin(process, processors):
    """All its threads; what it starts from then on follows them."""
    for task in pathlib.Path(f"/proc/{process.pid}/task").iterdir():
        os.sched_setaffinity(int(task.name), processors)


# Running a bench -----------------------------------------------------------------------------------------------------


def at_least(least):
    def number(text):
        value = int(text)
        if value < least:
            raise argparse.ArgumentTypeError(f"{least} or more")
        return value
    return number


def parser(bench, doc):
    """With what every bench takes. The file is opened before the sandbox hides the machine's /tmp."""
    made = argparse.ArgumentParser(prog=f"bench/{bench}", description=doc, formatter_class=argparse.RawDescriptionHelpFormatter)
    made.add_argument("--runs", type=at_least(1), default=3, metavar="R", help="runs, each of every program (default 3)")
    made.add_argument("--json", type=argparse.FileType("w"), metavar="FILE", help="write the figures to FILE as well")
    return made


def _measured(name, bench, options):
    """bench returns its figures and the complaints that make it a failure."""
    try:
        figures, complaints = bench(options)
    except (Failure, RuntimeError, TimeoutError, OSError, ValueError, subprocess.TimeoutExpired) as failure:
        figures, complaints = None, [failure]
    for complaint in complaints:
        print(f"bench/{name}: {complaint}", file=sys.stderr)
    if figures and options.json:
        figures.write(options.json)
        options.json.flush()
    return 1 if complaints else 0


def run(name, bench, options):
    return labnet.run_in_sandbox(f"bench/{name}", lambda: _measured(name, bench, options))
