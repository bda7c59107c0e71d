#!/usr/bin/env python3
"""Holds the tests that count allocations to the operations that are promised to real-time threads.

realtime.py ROOT   fails on an operation marked `@realtime bounded` that no such test names, and on an exception that is
                   no longer needed

A test source covers an operation if it uses `AllocationCount` or `expectNothingOfTheSystem`, includes the header, and names
the operation: a function by its name and a bracket, a constructor or destructor by its class, an operator by its sign, a
conversion by its cast. Whether the call stands where allocations are counted is left to the reader.
"""

import pathlib
import re
import sys

MARK = re.compile(r"@realtime bounded(?:\s+@|$)")

# Header and operation, with the reason why no count is needed.
EXCEPTIONS = {
    ("InitCondVar.h", "~InitCondVar"): "it ends a mutex and a condition",
    ("QuorvilAssert.h", "require"): "it is part of nearly every operation that is counted",
    ("QuorvilDataIO.h", "run"): "it does nothing",
    ("QuorvilDataIO.h", "start"): "it does nothing",
    ("QuorvilFastAllocator.h", "deallocate"): "the counted containers call it",
    ("QuorvilInit.h", "Quorvil_constructor"): "the loader calls it, before there are threads",
    ("QuorvilPthread.h", "InternThread"): "it is made by constructors that allocate",
    ("QuorvilTimeCollector.h", "tidyUpString"): "the counted deleters call it",
}


def operations(header):
    """The names that follow a comment with the mark, each with the class that they stand in: (name, class)."""
    lines = header.read_text().splitlines()
    classes, marked = [(-1, "")], False
    for line in lines:
        text = line.strip()
        indent = len(line) - len(line.lstrip())
        opened = re.match(r"(?:class|struct)\s+(?:QUORVIL_API\s+)?(\w+)\s*(?:final\b.*|:(?!:).*)?$", text)
        if opened:
            classes.append((indent, opened[1]))
        if text == "};" and indent == classes[-1][0]:
            classes.pop()
        if text.startswith("//"):
            marked = marked or bool(MARK.search(text))
            continue
        if not marked or text.startswith("template"):
            continue
        marked = False
        text = re.sub(r"\[\[[^\]]*\]\]|__attribute__\(.*", "", text)
        found = re.search(r"(operator\s*(?:\(\)|[^\s(]+)|~?\w+)\s*[(;]", text)
        if found:
            yield found[1], classes[-1][1]


def pattern(name, inside):
    if name.startswith("operator"):
        sign = name.removeprefix("operator").strip()
        if re.match(r"\w", sign):
            return rf"<{re.escape(sign)}>"
        return r"\b\w+\(" if sign == "()" else rf" {re.escape(sign)} "
    if name.lstrip("~") == inside:
        return rf"\b{inside}\b"
    return rf"\b{name}\b"


def main(root):
    tests = [path.read_text() for path in sorted((root / "tests").glob("*.cpp"))]
    tests = [text for text in tests if "AllocationCount" in text or "expectNothingOfTheSystem" in text]
    problems, unused = [], set(EXCEPTIONS)
    for header in sorted((root / "Quorvil").glob("*.h")):
        sources = [text for text in tests if f'#include "Quorvil/{header.name}"' in text]
        for name, inside in operations(header):
            if any(re.search(pattern(name, inside), text) for text in sources):
                continue
            key = (header.name, name)
            unused.discard(key)
            if key not in EXCEPTIONS:
                problems.append(f"{header.name}: {inside + '::' if inside else ''}{name} is marked as bounded, and no test that "
                                "counts allocations names it")
    problems += [f"{header}: {name} needs no exception" for header, name in sorted(unused)]
    print(*problems, sep="\n", end="\n" if problems else "")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(pathlib.Path(sys.argv[1])))
