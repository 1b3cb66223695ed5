"""clang-tidy and cppcheck over the sources that ship, as the clang build compiles them; each source counts as a test."""

import json
import os
import shutil
from concurrent.futures import ThreadPoolExecutor

from step import ROOT, Tally, run

PRESET = "clang"
FOLDERS = ("core", "platform", "process", "rpc", "sema")
COMMANDS = ROOT / "build" / "lint" / "compile_commands.json"

CPPCHECK_OPTIONS = [
    "--quiet", "--enable=warning,performance,portability", "--library=posix", "--error-exitcode=1",
    "-UMIREL_LOG", "-UMIREL_TRACE",  # as calls: it cannot expand macros with __VA_OPT__
    # False alarms of its parser:
    "--suppress=cppcheckError",  # gives up a value analysis by itself
    "--suppress=CastIntegerToAddressAtReturn:*/queue.cpp",  # pointer plus product is a pointer
    "--suppress=legacyUninitvar:*/mirel_intf_best_route.cpp",  # an initialiser that is new (std::nothrow)
    "--suppress=memleak:*/answer_watch.cpp",  # a mapping that the function returns
    "--suppress=memleakOnRealloc:*/test_resources.cpp",  # shows what realloc does, and ends
    "--suppress=readdirCalled",  # would have the obsolete readdir_r
    "--suppress=returnDanglingLifetime:*/mirelsh_prompt.cpp",  # the text is copied
]


def compile_commands():
    """How each source is compiled, in a file for both tools; nothing needs to be built. Empty when it could not be found out.
    Some sources are compiled for the tests once more; the first time is the one that ships."""
    shutil.rmtree(COMMANDS.parent, ignore_errors=True)
    if not run("lint-configure", ["cmake", "--preset", PRESET]):
        return {}
    commands = {}
    for command in json.loads((ROOT / "build" / PRESET / "compile_commands.json").read_text()):
        name = os.path.relpath(command["file"], ROOT)
        if name.split("/")[0] in FOLDERS and " -o tests/" not in command["command"]:
            commands.setdefault(name, command)
    COMMANDS.parent.mkdir(parents=True)
    COMMANDS.write_text(json.dumps(list(commands.values())))
    return commands


def over_all(tool, command):
    """One process a source: the analyzer of clang-tidy reports faults that are none when it has seen another source before."""
    commands = compile_commands()
    if not commands:
        return Tally(failed=1)
    with ThreadPoolExecutor(os.cpu_count()) as pool:
        good = list(pool.map(lambda name: run(f"{tool}-{name.replace('/', '-')}", command(name), quiet=True), sorted(commands)))
    return Tally(good.count(True), good.count(False))


def clang_tidy():
    return over_all("clang-tidy", lambda name: ["clang-tidy", "--quiet", "-p", str(COMMANDS.parent), str(ROOT / name)])


def cppcheck():
    return over_all("cppcheck", lambda name: ["cppcheck", *CPPCHECK_OPTIONS, f"--project={COMMANDS}",
                                              f"--file-filter={ROOT / name}"])
