#!/usr/bin/env python3
"""Shows a process of the library to gdb, and compares what gdb tells with what the process has printed of itself.

debugger.py live SCRIPT DEBUGGEE   the process stands still under gdb
debugger.py core SCRIPT DEBUGGEE   its core file, as quorvil::coredump leaves it

Exit code 77: this machine does not allow it; the reason is printed.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

TIMEOUT = 100
# In the order in which the debuggee prints them.
RECORDERS = ["util::gl_pTrenvikLimitedBuffer", "unused", "filling", "crowded"]
# Expression, and what `print` shows of it as a regular expression; LWP stands for the process's number.
VALUES = [
    ("minusOneAndAHalf", re.escape("TimeSpec(-1s; -500000000ns)")),
    ("label", '"Größe 4 €"'),
    ("wideLabel", 'L"Größe 4 €"'),
    ("noText", '""'),
    ("*(util::Thread*)&fresh", 'Thread "fresh" NEW, pthread_t 0x0'),
    ("*(util::Thread*)&feeding", 'Thread "feeding" RUNNING, pthread_t 0x[1-9a-f][0-9a-f]*'),
    ("feeding.internals", 'Thread "feeding" RUNNING, pthread_t 0x[1-9a-f][0-9a-f]*'),
    ("feeding", '{<util::Thread> = Thread "feeding" RUNNING.*reached = CountingSemaphore CS_ACTIVE, 0 counts, 0 waiters.*'),
    ("pages", "CountingSemaphore CS_ACTIVE, 3 counts, 0 waiters"),
    ("group", r"LockGroup held by (thread \d+ \()?LWP LWP\)?, 2 levels, interrupted"),
    ("quorvil::sync::gl_trenvikLockGroup", "LockGroup free"),
    ("guard", r"Guard of LockGroup 0x[0-9a-f]+, taken in Quorvil/Debuggee:42 at 2\d{3}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{9} UTC "
              r"after \d+ us"),
    ("database", "DbCon open, sqlite3 0x[1-9a-f][0-9a-f]*"),
    ("row", "PrepStat ROW, last result 100"),
    ("*crowded", "LimitedBuffer with 414 of 4000 bytes, 128 lists"),
]
FAILURES = [
    ("quorvil-recorder noRecorder", "no recorder is installed: noRecorder is empty"),
    ("quorvil-recorder row", "row is a sqlite3cpp::PrepStat, not a util::LimitedBuffer"),
    ("quorvil-recorder -as short filling", "a list has 8 bytes, a short 2"),
    ("quorvil-recorder -as nothing filling", "No type named nothing."),
    ("quorvil-recorder nowhere", 'No symbol "nowhere" in current context.'),
]


def skip(reason):
    print(f"skipped: {reason}")
    sys.exit(77)


def commands(script):
    """gdb's options for everything that is to be shown, each thing behind a line of its own."""
    shown = [f"quorvil-recorder {name}" for name in [""] + RECORDERS[1:]] + ["quorvil-recorder -as Band filling.get()"]
    shown += [f"print {name}" for name, _ in VALUES] + [command for command, _ in FAILURES]
    options = ["-ex", "set width 0", "-ex", "set debuginfod enabled off", "-ex", f"source {script}"]
    setup = ["-ex", "frame function main", "-ex", "set print pretty off"]
    return options, setup + [word for command in shown for word in ("-ex", f"echo @@{command}\\n", "-ex", command)], shown


def run_gdb(arguments):
    environment = {**os.environ, "LC_ALL": "C.UTF-8"}
    done = subprocess.run(["gdb", "-nx", "-batch", *arguments], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, timeout=TIMEOUT, env=environment, check=False)
    return done.stdout.decode()


def show_live(script, debuggee, printed):
    options, rest, shown = commands(script)
    output = run_gdb([*options, "-ex", "break standStill", "-ex", "run", "-ex", "info inferiors", *rest,
                      "--args", debuggee, printed, "none"])
    if "Could not trace" in output or "ptrace" in output:
        skip("this machine does not let gdb trace a process")
    found = re.search(r"process (\d+)", output)
    return output, shown, found[1] if found else ""


def show_core(script, debuggee, printed):
    pattern = pathlib.Path("/proc/sys/kernel/core_pattern").read_text().strip()
    if os.geteuid() != 0:
        skip("only root can make /data/coreDumps")
    if not pattern or pattern[0] == "|" or "/" in pattern:
        skip(f"this machine's kernel puts core files elsewhere: core_pattern is '{pattern}'")
    name = f"quorvilTest.{os.getpid()}"
    dumps = pathlib.Path("/data/coreDumps") / name
    try:
        with subprocess.Popen([debuggee, printed, name], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True) as process:
            for line in process.stdout:
                if "CORE DUMP done." in line:
                    break
            process.stdin.close()
            process.wait(TIMEOUT)
        cores = list(dumps.iterdir())
        if len(cores) != 1:
            sys.exit(f"there are {len(cores)} core files in {dumps}")
        options, rest, shown = commands(script)
        return run_gdb([*options, *rest, debuggee, str(cores[0])]), shown, str(process.pid)
    finally:
        shutil.rmtree(dumps, ignore_errors=True)


def main(subject, script, debuggee):
    with tempfile.NamedTemporaryFile("r", encoding="utf-8") as file:
        output, shown, lwp = (show_live if subject == "live" else show_core)(script, debuggee, file.name)
        printed = dict(zip(RECORDERS, file.read().split("@@")))
    parts = dict(part.split("\n", 1) for part in output.split("@@")[1:])
    expected = dict(zip(shown, [re.escape(printed[name]) for name in RECORDERS]))
    framed = re.split(r"\[.*\]\n", printed["filling"])
    expected[shown[len(RECORDERS)]] = re.escape("[{page = 1, number = 1}]\n".join(framed))
    expected |= {f"print {name}": r"\$\d+ = " + value.replace("LWP LWP", f"LWP {lwp}") + "\n" for name, value in VALUES}
    expected |= {command: re.escape(text) + "\n(.*\n)*" for command, text in FAILURES}
    problems = [f"{command}\n  shows     {parts.get(command)!r}\n  and not   {text!r}" for command, text in expected.items()
                if not re.fullmatch(text, parts.get(command, ""))]
    if not parts:
        problems.append(output)
    print(*problems, sep="\n")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
