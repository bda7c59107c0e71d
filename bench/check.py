#!/usr/bin/env python3
"""Compares the medians of a benchmark run with the goals in goals.json.

check.py RESULTS [ROW...]   prints a table and what falls short; RESULTS holds one JSON file of Google Benchmark a row.
                            It exits with 1 if a benchmark reported an error, such as a peer with another result; a
                            figure below its goal is told and is no error.
check.py --repetitions ROW  prints how often the row is to be repeated

A goal names a row, a case, our candidate and another one of that case, and either the least that the other's time divided by
ours may be (atLeast) or the most that ours divided by the other's may be (atMost). "figure" is "cpu" (the default) or
"real". Rows on two threads jump between runs, so that their smallest figure counts ("threads": 2).
"""

import json
import pathlib
import statistics
import sys

GOALS = json.loads((pathlib.Path(__file__).parent / "goals.json").read_text())


def repetitions(row):
    return 15 if any(goal.get("threads", 1) > 1 for goal in GOALS if goal["row"] == row) else 7


def figures(path):
    """The repetitions' times of every benchmark in a result file, in nanoseconds: {name: {"cpu": [...], "real": [...]}},
    and the errors that benchmarks reported, each once."""
    scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}
    found, errors = {}, {}
    for run in json.loads(path.read_text())["benchmarks"]:
        if run.get("error_occurred"):
            errors[f"{run['run_name']}: {run.get('error_message', 'no message')}"] = True
            continue
        if run.get("run_type") != "iteration":
            continue
        # Google Benchmark appends options such as /real_time to the name.
        name = "/".join(run["run_name"].split("/")[:3])
        times = found.setdefault(name, {"cpu": [], "real": []})
        times["cpu"].append(run["cpu_time"] * scale[run["time_unit"]])
        times["real"].append(run["real_time"] * scale[run["time_unit"]])
    return found, list(errors)


def main(arguments):
    if arguments[0] == "--repetitions":
        print(repetitions(arguments[1]))
        return 0
    results = pathlib.Path(arguments[0])
    rows = arguments[1:] or sorted(path.stem for path in results.glob("*.json"))
    short, unmeasured, errors = [], [], []
    print(f"{'case':44} {'ours':>22} {'other':>34} {'ratio':>7} {'goal':>8}")
    for row in rows:
        measured, failed = figures(results / f"{row}.json")
        errors += failed
        for goal in (goal for goal in GOALS if goal["row"] == row):
            pick = min if goal.get("threads", 1) > 1 else statistics.median
            times = []
            for candidate in (goal["ours"], goal["other"]):
                runs = measured.get(f"{row}/{goal['case']}/{candidate}", {}).get(goal.get("figure", "cpu"))
                times.append(pick(runs) if runs else None)
            label = f"{row}/{goal['case']}"
            if None in times:
                unmeasured.append(f"{label}: {goal['ours']} beside {goal['other']}")
                continue
            ours, other = times
            if "atLeast" in goal:
                ratio, wanted, reached = other / ours, f">= {goal['atLeast']}", other / ours >= goal["atLeast"]
            else:
                ratio, wanted, reached = ours / other, f"<= {goal['atMost']}", ours / other <= goal["atMost"]
            print(f"{label:44} {goal['ours']:>12} {ours:9.5g} {goal['other']:>24} {other:9.5g} {ratio:7.2f} {wanted:>8}"
                  + ("" if reached else "  SHORT"))
            if not reached:
                short.append(label)
    if unmeasured:
        print("\nnot measured (peer or case missing):", *unmeasured, sep="\n  ")
    if errors:
        print("\nended in an error:", *errors, sep="\n  ")
    if short:
        print("\nbelow the goal:", *short, sep="\n  ")
    elif not errors:
        print("\nevery measured figure reaches its goal")
    return 1 if errors else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
