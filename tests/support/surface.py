#!/usr/bin/env python3
"""Compares what programs were compiled and linked against with what the library is now.

surface.py ROOT LIBRARY COMPILER HEADER...           fails on a difference from tests/surface/
surface.py --write ROOT LIBRARY COMPILER HEADER...   writes tests/surface/

symbols.txt    what the library exports of its own namespaces; inline functions and instances of templates are left out, since
               it is the compiler's choice which of them are there
virtuals.txt   the virtual functions that each public class brings or overrides, with their slots; a destructor has no number
               and takes the two that the others leave
fields.txt     the bases and fields of each public class, in their order; sizes and offsets are left out

Symbols come from the built library, the others from the debug information of a source that includes all public headers.
"""

import difflib
import pathlib
import re
import subprocess
import sys
import tempfile

FOREIGN = re.compile(r"(?:(?:vtable|VTT|typeinfo|typeinfo name|guard variable) for )?(?:std|__gnu_cxx|__cxxabiv1)\b|_")
CLASS_TAGS = ("DW_TAG_class_type", "DW_TAG_structure_type")
# Types that end in their own name with a mark behind it.
MARKS = {"DW_TAG_pointer_type": "*", "DW_TAG_reference_type": "&", "DW_TAG_rvalue_reference_type": "&&",
         "DW_TAG_const_type": " const", "DW_TAG_volatile_type": " volatile"}


def output_of(*command):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True).stdout


def exported(library):
    """The demangled names of what the library defines for others."""
    lines = output_of("nm", "-DC", "--defined-only", "--format=posix", library).splitlines()
    names = {line.rsplit(" ", 3)[0] for line in lines if re.search(r" [TBDRV] [0-9a-f]+ [0-9a-f]*$", line)}
    return sorted(name for name in names if not FOREIGN.match(name))


class Entry:
    """An entry of the debug information with what stands in and below it."""

    def __init__(self, tag, parent):
        self.tag, self.parent, self.attributes, self.children = tag, parent, {}, []

    def name(self):
        return self.attributes.get("DW_AT_name", "")


def debug_entries(object_file):
    """All entries by their place, as readelf tells them."""
    entries, path, entry = {}, [], None
    lines = subprocess.Popen(["readelf", "-W", "--debug-dump=info", object_file], stdout=subprocess.PIPE, text=True).stdout
    begin = re.compile(r" <([0-9a-f]+)><([0-9a-f]+)>: Abbrev Number: \d+ \((\w+)\)")
    attribute = re.compile(r"    <[0-9a-f]+>\s+(DW_AT_\w+)\s*: (?:\([^()]*\):? )*(.*)")
    for line in lines:
        found = begin.match(line)
        if found:
            del path[int(found[1], 16):]
            entry = Entry(found[3], path[-1] if path else None)
            if path:
                path[-1].children.append(entry)
            path.append(entry)
            entries[int(found[2], 16)] = entry
            continue
        found = attribute.match(line)
        if found and entry:
            entry.attributes[found[1]] = found[2].strip()
    return entries


class Surface:
    """The public classes in the debug information of a source that includes their headers."""

    def __init__(self, entries, classes):
        self.entries = entries
        self.classes = {}
        for entry in entries.values():
            if entry.tag in CLASS_TAGS and "DW_AT_declaration" not in entry.attributes:
                name = self.qualified(entry)
                if entry.name().split("<")[0] in classes and not FOREIGN.match(name):
                    self.classes[name] = entry

    def referred(self, entry, attribute="DW_AT_type"):
        place = re.search(r"<0x([0-9a-f]+)>", entry.attributes.get(attribute, ""))
        return self.entries[int(place[1], 16)] if place else None

    def qualified(self, entry):
        names = [entry.name() or "(unnamed)"]
        scope = entry.parent
        while scope and scope.tag in CLASS_TAGS + ("DW_TAG_namespace", "DW_TAG_union_type"):
            names.append(scope.name() or "(unnamed)")
            scope = scope.parent
        return "::".join(reversed(names))

    def type_of(self, entry):
        """The type of a field, an element, a pointer: in words, and with names as the source gives them."""
        kind = self.referred(entry)
        if kind is None:
            return "void"
        if kind.tag in MARKS:
            return self.type_of(kind) + MARKS[kind.tag]
        if kind.tag == "DW_TAG_array_type":
            bounds = [child.attributes.get("DW_AT_upper_bound", "") for child in kind.children]
            return self.type_of(kind) + "".join(f"[{int(bound, 0) + 1}]" if bound else "[]" for bound in bounds)
        if kind.tag == "DW_TAG_subroutine_type":
            parameters = [self.type_of(child) for child in kind.children]
            return f"{self.type_of(kind)}({', '.join(parameters)})"
        return self.qualified(kind)

    def table(self, rows):
        """Each class that has rows, and they below it."""
        for name, entry in sorted(self.classes.items()):
            found = [row for child in entry.children for row in rows(child)]
            if found:
                yield name
                yield from (f"    {row}" for _, row in sorted(found, key=lambda row: row[0]))

    def field(self, child):
        if child.tag == "DW_TAG_inheritance":
            yield 0, f": {self.type_of(child)}"
        elif child.tag == "DW_TAG_member" and "DW_AT_artificial" in child.attributes:
            yield 0, "(virtual table)"
        elif child.tag == "DW_TAG_member" and "DW_AT_data_member_location" in child.attributes:
            yield 0, f"{self.type_of(child)} {child.name()}"

    def virtual(self, child):
        slot = re.search(r"DW_OP_constu: (\d+)", child.attributes.get("DW_AT_vtable_elem_location", ""))
        if slot:
            parameters = [self.type_of(parameter) for parameter in child.children
                          if parameter.tag == "DW_TAG_formal_parameter" and "DW_AT_artificial" not in parameter.attributes]
            yield int(slot[1]), f"{slot[1]} {child.name()}({', '.join(parameters)})"
        elif child.tag == "DW_TAG_subprogram" and "DW_AT_virtuality" in child.attributes:
            yield -1, f"{child.name()}()"


def main(arguments):
    write = arguments[0] == "--write"
    root, library, compiler, *headers = arguments[write:]
    classes = set()
    for header in headers:
        text = pathlib.Path(header).read_text()
        classes |= set(re.findall(r"^\s*(?:class|struct) (?:QUORVIL_API )?(\w+)(?=[^;\n]*$)", text, re.M))
    with tempfile.TemporaryDirectory() as folder:
        source = pathlib.Path(folder) / "surface.cpp"
        source.write_text("".join(f'#include "{header}"\n' for header in headers))
        subprocess.run([compiler, "-std=c++20", "-g", "-gdwarf-5", "-fno-eliminate-unused-debug-types",
                        "-femit-class-debug-always", f"-I{root}", "-c", source, "-o", f"{source}.o"], check=True)
        surface = Surface(debug_entries(f"{source}.o"), classes)
    now = {"symbols.txt": exported(library), "virtuals.txt": surface.table(surface.virtual),
           "fields.txt": surface.table(surface.field)}
    changed = False
    for name, lines in now.items():
        kept, text = pathlib.Path(root) / "tests/surface" / name, "".join(f"{line}\n" for line in lines)
        if write:
            kept.parent.mkdir(exist_ok=True)
            kept.write_text(text)
            continue
        former = kept.read_text() if kept.exists() else ""
        difference = difflib.unified_diff(former.splitlines(), text.splitlines(), f"tests/surface/{name}", "now", "", "", 2, "")
        for line in difference:
            changed = True
            print(line)
    if changed:
        print("Programs compiled against the library may have to be compiled anew. If that is meant, write the surface anew:\n"
              "cmake --build --preset dev --target writeSurface")
    return changed


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
