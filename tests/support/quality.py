#!/usr/bin/env python3
"""Writes docs/quality.md from what the last runs left in build/: `./dev quality` counts the coverage and calls it.

quality.py ROOT   A figure whose run is missing counts as not measured. The reasons of branches that no test takes stand in
                  docs/openBranches.txt: source, a piece of the line, and why, between bars.
"""

import datetime
import json
import pathlib
import platform
import re
import subprocess
import sys


def run(*command, cwd=None):
    return subprocess.run(command, cwd=cwd, capture_output=True, text=True).stdout


def machine():
    cpu = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    cores = run("nproc").strip()
    compilers = [run(name, "--version").splitlines()[0] for name in ("g++", "clang++-19")]
    revision = run("git", "rev-parse", "--short", "HEAD", cwd=pathlib.Path(__file__).parent).strip()
    return [f"{datetime.date.today()}, revision {revision}, {cpu[1] if cpu else platform.machine()}, {cores} cores, Linux {platform.release()};",
            f"{compilers[0]}; {compilers[1]}."]


def code_lines(root, folders):
    total = 0
    for folder in folders:
        for path in (root / folder).rglob("*"):
            if path.suffix in (".h", ".cpp"):
                total += sum(1 for line in path.read_text().splitlines() if not re.match(r"\s*($|//)", line))
    return total


def share(root):
    code = code_lines(root, ["Quorvil", "siblings", "examples", "bench"])
    tests = code_lines(root, ["tests", "fuzz"])
    return [f"{code} lines of code (Quorvil, siblings, examples, bench), {tests} lines of tests (tests, fuzz), of C++ that is neither",
            f"blank nor comment: {100 * tests / code:.1f} % of the code."]


def suites(root):
    lines = ["| Preset | Passed | Skipped, each with a printed reason | Failed | Ended |", "|---|---|---|---|---|"]
    for preset in ("dev", "clang", "asan", "tsan", "arm"):
        log = root / "build" / preset / "Testing/Temporary/LastTest.log"
        if not log.exists():
            lines.append(f"| {preset} | not run | | | |")
            continue
        text = log.read_text(errors="replace")
        count = [len(re.findall(words, text, re.M)) for words in (r"^Test Passed\.$", r"^Skip (?:regular|return)", r"^Test Failed\.$")]
        ended = re.search(r"^End testing: (.*)$", text, re.M)
        lines.append(f"| {preset} | {count[0]} | {count[1]} | {count[2]} | {ended[1] if ended else 'broken off'} |")
    return lines


def coverage(root):
    path = root / "build/coverage/gcovr.json"
    if not path.exists():
        return ["Not measured."]
    reasons = []
    listed = root / "docs/openBranches.txt"
    for line in listed.read_text().splitlines() if listed.exists() else []:
        if line and not line.startswith("#"):
            reasons.append([cell.strip() for cell in line.split("|")])
    lines = branches = lines_taken = branches_taken = 0
    still_open = []
    for source in json.loads(path.read_text())["files"]:
        name = source["file"]
        if not name.startswith("Quorvil/"):
            continue
        text = (root / name).read_text().splitlines()
        for line in source["lines"]:
            if line.get("gcovr/noncode"):
                continue
            ways = [way for way in line["branches"] if not way["throw"]]
            taken = sum(1 for way in ways if way["count"])
            lines, lines_taken = lines + 1, lines_taken + (line["count"] > 0)
            branches, branches_taken = branches + len(ways), branches_taken + taken
            if line["count"] and taken == len(ways):
                continue
            number = line["line_number"]
            code = text[number - 1].strip() if number <= len(text) else ""
            about = [row for row in reasons if row[0] == name.removeprefix("Quorvil/")]
            why = next((row[2] for near in ([code], text[max(0, number - 3):number - 1]) for row in about
                        if any(row[1] in other for other in near)), "no reason yet")
            still_open.append(f"| {name}:{line['line_number']} | `{code.replace('|', chr(92) + '|')}` | {why} |")
    return [f"Lines {100 * lines_taken / lines:.1f} % of {lines}, branches {100 * branches_taken / branches:.1f} % of {branches} "
            "(throw branches apart; gcovr over the whole suite, g++).", "",
            "| Open | Line | Reason |", "|---|---|---|", *still_open]


def speed(root):
    results = root / "build/release/bench/results"
    if not list(results.glob("*.json")):
        return ["Not measured."]
    table = run(sys.executable, str(root / "bench/check.py"), str(results))
    return ["Medians in nanoseconds of one run, ours beside what a user would take instead (`./dev bench`).", "",
            "```", table.strip(), "```"]


def fuzzing(root):
    executed = {}
    path = root / "build/fuzz/executed"
    for line in path.read_text().splitlines() if path.exists() else []:
        harness, count = line.split()
        executed[harness] = executed.get(harness, 0) + int(count)
    lines = ["| Harness | Executions without a finding |", "|---|---|"]
    for harness in sorted((root / "fuzz").glob("*.cpp")):
        lines.append(f"| {harness.stem} | {executed.get(harness.stem, 'not run')} |")
    return lines


def stressed(root):
    path = root / "build/stress.log"
    if not path.exists():
        return ["Not run."]
    text = path.read_text(errors="replace")
    factor = int(re.match(r"factor (\d+)", text)[1])
    lines = ["| Test | Rounds |", "|---|---|"]
    for source in sorted((root / "tests").glob("*.cpp")):
        name = ""
        for line in source.read_text().splitlines():
            test = re.match(r"TEST(?:_F)?\((\w+), (\w+)\)", line)
            name = f"{test[1]}.{test[2]}" if test else name
            usual = re.search(r"([\d']+)\)? \* (?:support::)?stressFactor\(\)", line)
            if usual and "EXPECT" not in line:
                passed = re.search(rf"{re.escape(name)} \.* +Passed", text)
                rounds = int(usual[1].replace("'", "")) * factor
                lines.append(f"| {name} | {rounds if passed else 'not passed'} |")
    return lines


def repeated(root):
    lines = ["| Preset | Rounds of the whole suite without a failure, in random order, every core loaded |", "|---|---|"]
    for preset in ("dev", "tsan", "arm"):
        path = root / "build/repeat" / preset
        lines.append(f"| {preset} | {path.read_text().split()[1] if path.exists() else 'not run'} |")
    return lines


def suppressions(root):
    found = run("grep", "-rnE", "NOLINT|no_sanitize|disable_sanitizer|-Wno-|diagnostic ignored", "Quorvil", "siblings", "examples", "bench", "fuzz",
                "tests", "cmake", "--include=*.h", "--include=*.cpp", "--include=*.cmake", "--include=CMakeLists.txt", cwd=root)
    return ["```", found.strip(), "```"]


def main(root):
    sections = [("Size of the tests", share), ("Tests", suites), ("Coverage", coverage), ("Repeated runs", repeated), ("Stress", stressed),
                ("Fuzzing", fuzzing), ("Speed", speed), ("Suppressions", suppressions)]
    text = ["# Measured quality", "", "Written by `./dev quality` from the last runs, each with its own time, on", *machine(), ""]
    for title, make in sections:
        text += [f"## {title}", "", *make(root), ""]
    (root / "docs/quality.md").write_text("\n".join(text))
    print("docs/quality.md is written")


main(pathlib.Path(sys.argv[1]).resolve())
