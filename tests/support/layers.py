#!/usr/bin/env python3
"""Draws the map of the library from the first lines and the includes of its sources, and holds its layers.

layers.py ROOT          fails on a circle of includes, on a line between subsystems that is not allowed, on a header that does
                        not say what it is, on a public header that README.md or that of the label printer does not name, and on a
                        map (Quorvil/README.md) that is no longer true
layers.py ROOT --write  writes the map
"""

import pathlib
import re
import sys

SUBSYSTEMS = ["Foundation", "Synchronisation", "Threads and timers", "Memory and queues", "Diagnostics", "Data",
              "System interfaces"]

# Besides its own subsystem and Foundation a file may include only along these lines: from a subsystem, or from the files
# named, to a subsystem or to the headers named. A name ends in * where any ending fits.
ALLOWED = [
    ("Synchronisation", "QuorvilLimitedBuffer.h"),
    ("Threads and timers", "Synchronisation"),
    ("Diagnostics", "Memory and queues"),
    ("Diagnostics", "QuorvilPthread.h"),
    ("QuorvilDataIO.*", "Synchronisation"),
    ("Foundation", "siblings/OvxLog/OvxLog.h"),
    ("Foundation", "siblings/StampGate/StampGate.h"),
    ("QuorvilAsyncInput.*", "siblings/EasyAsync/EasyAsync.h"),
    ("QuorvilCoreDump.*", "siblings/EasyAsync/EasyAsync.h"),
]
ABOVE_ALL = "QuorvilGlobals.cpp"
INCLUDE = re.compile(r'^#include "((?:Quorvil|siblings)/[^"]+)"', re.M)


def read(folder):
    files, problems = {}, []
    for path in sorted(folder.glob("*.h")):
        text = path.read_text()
        lines = text.splitlines() + ["", ""]
        purpose = re.fullmatch(rf"// {re.escape(path.name)}: (.+)", lines[0])
        subsystem = re.fullmatch(r"// ([A-Z][a-z ]+?)(?:, on (.+))?", lines[1])
        if not purpose or not subsystem or subsystem[1] not in SUBSYSTEMS:
            problems.append(f"{path.name}: its first two lines do not give purpose and subsystem")
            continue
        files[path.name] = (subsystem[1], purpose[1], INCLUDE.findall(text))
    for path in sorted(folder.glob("*.cpp")):
        header = files.get(path.stem + ".h")
        if header:
            files[path.name] = (header[0], None, INCLUDE.findall(path.read_text()))
        elif path.name != ABOVE_ALL:
            problems.append(f"{path.name}: no header of its name")
    return files, problems


def allowed(source, source_subsystem, target, target_subsystem):
    if target_subsystem in (source_subsystem, "Foundation"):
        return True
    for origin, goal in ALLOWED:
        from_here = origin == source_subsystem or (origin.endswith("*") and source.startswith(origin[:-1]))
        if from_here and goal in (target, target_subsystem):
            return True
    return False


def check(files):
    problems, levels = [], {}
    for name, (subsystem, _, includes) in files.items():
        for include in includes:
            target = include.removeprefix("Quorvil/")
            if target != include and target not in files:
                problems.append(f"{name} includes {include}, which is not there")
            elif not allowed(name, subsystem, target, files[target][0] if target in files else None):
                problems.append(f"{name} ({subsystem}) must not include {include}")

    def level(name, path):
        if name in path:
            problems.append("circle: " + " -> ".join(path[path.index(name):] + [name]))
            return 0
        if name not in levels:
            below = [include.removeprefix("Quorvil/") for include in files[name][2]]
            levels[name] = 1 + max([level(b, path + [name]) for b in below if b in files], default=-1)
        return levels[name]

    for name in files:
        if name.endswith(".h"):
            level(name, [])
    return problems, levels


def draw(files, levels):
    lines = ["# The map of the library", "",
             "Generated from the first lines and the includes of the headers; `tests/support/layers.py . --write` draws it anew.",
             "The number is a header's level: it includes only headers of lower levels. Headers that end in `Intern.h` are not",
             "installed, but for `QuorvilSync2Intern.h`."]
    for subsystem in SUBSYSTEMS:
        rows = sorted((levels[name], name, purpose) for name, (sub, purpose, _) in files.items()
                      if sub == subsystem and purpose)
        if rows:
            lines += ["", f"## {subsystem}", "", "| Level | Header | What it gives |", "|---|---|---|"]
            lines += [f"| {level} | `{name}` | {purpose} |" for level, name, purpose in rows]
    return "\n".join(lines) + "\n"


def main():
    folder = pathlib.Path(sys.argv[1]) / "Quorvil"
    files, problems = read(folder)
    found, levels = check(files)
    problems += found
    drawn = draw(files, levels)
    chart = folder / "README.md"
    for page in ("README.md", "examples/labelPrinter/README.md"):
        told = (folder.parent / page).read_text()
        problems += [f"{page} does not name {name} in its table" for name, (_, purpose, _) in sorted(files.items())
                     if purpose and (not name.endswith("Intern.h") or name == "QuorvilSync2Intern.h")
                     and f"`{name}`" not in told]
    if "--write" in sys.argv:
        chart.write_text(drawn)
    elif not chart.exists() or chart.read_text() != drawn:
        problems.append("Quorvil/README.md is stale: python3 tests/support/layers.py . --write")
    print(*problems, sep="\n")
    sys.exit(bool(problems))


main()
