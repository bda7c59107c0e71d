#!/usr/bin/env python3
"""Fails when a C++ snippet of a page for people is not, line by line, part of a source that the build compiles."""

import pathlib
import re
import sys

root = pathlib.Path(sys.argv[1])
sources = [path.read_text() for path in (root / "examples").rglob("*.cpp")]
pages = [root / "README.md", *(root / "docs").glob("*.md"), *(root / "examples").rglob("README.md")]
strangers = []
for page in pages:
    for snippet in re.findall(r"```cpp\n(.*?)```", page.read_text(), re.S):
        if not any(snippet in source for source in sources):
            strangers.append(f"{page.relative_to(root)}: no source holds this snippet:\n{snippet}")
print(*strangers, sep="\n")
sys.exit(bool(strangers))
