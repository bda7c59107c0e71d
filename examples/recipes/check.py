#!/usr/bin/env python3
"""Holds one recipe of docs/recipes.md against its program.

check.py PAGE RECIPE PROGRAM...

RECIPE is the recipe's source. Its section of the page links to the file in its first line, shows the whole source, and behind it
what the program writes to a terminal, where an ellipsis stands for what differs from run to run. Fails when a text differs, when
the program does not end once its input does, or when its exit code is not 0. A section that says "in any order" shows the lines
sorted; one that tells when "a line `...` more" comes is not held to it. 77: the section says "as root", and this is somebody else.
"""

import os
import pathlib
import pty
import re
import select
import shutil
import socket
import subprocess
import sys
import tempfile
import time

SECONDS = 60
CORES = pathlib.Path("/data/coreDumps/recipe")


def fail(text):
    sys.exit(f"{pathlib.Path(sys.argv[2]).name}: {text}")


def section(page, recipe):
    for part in re.split(r"^## ", page.read_text(), flags=re.M)[1:]:
        if f"recipes/{recipe.name}" in part.splitlines()[2]:
            return part
    fail(f"{page} has no section for it")


def block(text, language):
    found = [shown for kind, shown in re.findall(r"^```(\w*)\n(.*?)^```$", text, re.S | re.M) if kind == language]
    if len(found) != 1:
        fail(f"the page shows {len(found)} blocks of '{language}' for it")
    return found[0]


def run(command, complete):
    """What the program writes to a terminal of its own. Its input ends when `complete` is satisfied with that."""
    terminal, programs_end = pty.openpty()
    text = b""
    deadline = time.monotonic() + SECONDS
    with tempfile.TemporaryDirectory() as folder, subprocess.Popen(
            command, cwd=folder, stdin=subprocess.PIPE, stdout=programs_end, stderr=programs_end) as program:
        os.close(programs_end)
        while time.monotonic() < deadline:
            if select.select([terminal], [], [], 0.5)[0]:
                try:
                    text += os.read(terminal, 65536)
                except OSError:  # the terminal is closed at its other end
                    break
            if complete(text.decode().replace("\r\n", "\n")):
                program.stdin.close()
        else:
            program.kill()
            fail(f"it does not end; so far it wrote:\n{text.decode()}")
        if not program.stdin.closed:
            program.stdin.close()
    os.close(terminal)
    return text.decode().replace("\r\n", "\n"), program.returncode


def main():
    page, recipe, *command = map(pathlib.Path, sys.argv[1:])
    part = section(page, recipe)
    if block(part, "cpp") != recipe.read_text():
        fail(f"{page} shows another text")
    if "as root" in part and os.geteuid() != 0:
        print("only root can make", CORES)
        sys.exit(77)
    made = [folder for folder in (CORES, *CORES.parents) if not folder.exists()]
    if "9100" in block(part, "cpp"):
        with socket.socket() as free:
            free.bind(("", 0))
            command.append(free.getsockname()[1])

    more = [line + "\n" for line in re.findall(r"a line `(.*?)` more", part)]

    def arranged(text):
        lines = [line for line in text.splitlines(True) if line not in more]
        return "".join(sorted(lines) if "in any order" in part else lines)

    expected = block(part, "")
    pattern = re.compile(re.escape(expected).replace("…", ".*"))
    try:
        written, code = run([str(word) for word in command], lambda text: pattern.fullmatch(arranged(text)))
    finally:
        for folder in made:
            shutil.rmtree(folder, ignore_errors=True)
    if not pattern.fullmatch(arranged(written)):
        fail(f"it wrote\n{written}\ninstead of\n{expected}")
    if code != 0:
        fail(f"it ended with {code}")


main()
