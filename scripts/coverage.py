"""Which lines of the shipped sources the tests reach, in a build whose counters the kernel keeps in files: a program that is
killed counts like any other, and all processes of one program share a file."""

import itertools
import os
import shutil
import subprocess
from collections import defaultdict

from step import LOGS, ROOT, Tally, run

PRESET = "coverage"
BUILD = ROOT / "build" / PRESET
PROFILES = BUILD / "profiles"
UNREACHED = BUILD / "unreached.txt"
FOLDERS = ("common", "core", "rpc", "sema", "platform", "process")
# The test programs are made of the same sources, and their counters go by the names of functions too.
PROGRAMS = ("mirel", "mirelsh", "orrin", "orrinctl", "test_app", "libqvproc.so", "libtarnapi.so")


def environment():
    """For the tests: %m is one file a program, %c has it mapped while the program runs."""
    shutil.rmtree(PROFILES, ignore_errors=True)
    PROFILES.mkdir(parents=True)
    return {"LLVM_PROFILE_FILE": str(PROFILES / "%m%c.profraw")}


def lines_of(report):
    """Source -> line -> how often it was reached, from a report in lcov's form."""
    sources = defaultdict(dict)
    name = None
    for entry in report.splitlines():
        kind, _, rest = entry.partition(":")
        if kind == "SF":
            name = os.path.relpath(rest, ROOT)
        elif kind == "DA" and name.split("/")[0] in FOLDERS:
            line, count = rest.split(",")[:2]
            sources[name][int(line)] = sources[name].get(int(line), 0) + int(count)
    return sources


def row(name, lines):
    reached = sum(count > 0 for count in lines)
    return f"  {name:<52} {len(lines):>6} {len(lines) - reached:>6} {100 * reached / len(lines):>7.1f} %"


def table(sources):
    print(f"  {'source':<52} {'lines':>6} {'not':>6} {'reached':>9}")
    for folder, names in itertools.groupby(sorted(sources, key=lambda name: (os.path.dirname(name), name)), os.path.dirname):
        counts = {name: list(sources[name].values()) for name in names}
        for name, lines in counts.items():
            print(row(name, lines))
        print(row(f"{folder}/ in all", sum(counts.values(), [])) + "\n")
    print(row("total", [count for lines in sources.values() for count in lines.values()]), flush=True)


def write_unreached(sources):
    """The lines not reached, each with its text, a blank line between stretches."""
    with UNREACHED.open("w") as out:
        for name in sorted(sources):
            text = (ROOT / name).read_text().splitlines()
            before = None
            for line in sorted(line for line, count in sources[name].items() if count == 0):
                if before is None or line > before + 1:
                    out.write(f"\n{name}\n")
                out.write(f"{line:>5}  {text[line - 1]}\n")
                before = line


def report():
    """Prints the table and writes the lines not reached. Good when there is something to report."""
    merged = BUILD / "merged.profdata"
    if not run("coverage-merge", ["llvm-profdata", "merge", "-sparse", "-o", str(merged), *map(str, PROFILES.glob("*.profraw"))]):
        return Tally(failed=1)
    first, *others = (str(BUILD / "bin" / program) for program in PROGRAMS)
    export = subprocess.run(["llvm-cov", "export", "-format=lcov", f"-instr-profile={merged}", first,
                             *(word for program in others for word in ("-object", program))], capture_output=True, text=True)
    (LOGS / "coverage-export.log").write_text(export.stderr)
    sources = lines_of(export.stdout)
    if export.returncode != 0 or not sources:
        print(f"  llvm-cov: {export.stderr}")
        return Tally(failed=1)
    table(sources)
    write_unreached(sources)
    print(f"  what is not reached: {UNREACHED.relative_to(ROOT)}", flush=True)
    return Tally(passed=1)
