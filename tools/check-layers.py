#!/usr/bin/env python3
"""Checks that the subsystems build on one another one way only.

A subsystem (a folder with a CMake target of its name) may include the headers of the
subsystems it links, directly or through them, and no others; it may not include the
internals (`detail/`) of another subsystem. Its tests build on the whole library: they may
include any subsystem's public headers and test kits, never another's internals. Exits 1
and names every include that breaks it.

Usage: tools/check-layers.py [ROOT]
"""
import pathlib
import re
import sys

SUBSYSTEMS = ("log", "value", "thread", "module", "broker", "network", "memory", "proxies",
              "behavior", "python", "brokerprogram")
# The shared library that holds every native subsystem.
LIBRARY = "velmo"
LIBRARY_PARTS = tuple(s for s in SUBSYSTEMS if s not in ("python", "brokerprogram"))

LINK = re.compile(r"target_link_libraries\(\s*(\S+)([^)]*)\)", re.S)
INCLUDE = re.compile(r'^[ \t]*[#%][ \t]*include[ \t]+"([^"/]+/[^"]+)"', re.M)
SOURCES = ("*.h", "*.cpp", "*.i")


def direct_links(root):
    links = {}
    for name in SUBSYSTEMS:
        text = (root / name / "CMakeLists.txt").read_text()
        for target, arguments in LINK.findall(text):
            if target != name:
                continue
            for word in arguments.split():
                if word == LIBRARY:
                    links.setdefault(name, set()).update(LIBRARY_PARTS)
                elif word in SUBSYSTEMS:
                    links.setdefault(name, set()).add(word)
    return links


def closure(links):
    reach = {}
    for name in SUBSYSTEMS:
        seen, pending = set(), list(links.get(name, ()))
        while pending:
            other = pending.pop()
            if other not in seen:
                seen.add(other)
                pending.extend(links.get(other, ()))
        reach[name] = seen
    return reach


def violations(root):
    reach = closure(direct_links(root))
    for name in SUBSYSTEMS:
        if name in reach[name]:
            yield f"{name}/CMakeLists.txt: {name} links itself through a loop"
        for pattern in SOURCES:
            for path in sorted((root / name).rglob(pattern)):
                relative = path.relative_to(root)
                if relative.parts[1].startswith("build"):
                    continue
                text = path.read_text(errors="replace")
                for match in INCLUDE.finditer(text):
                    included = match.group(1)
                    owner = included.split("/", 1)[0]
                    if owner not in SUBSYSTEMS or owner == name:
                        continue
                    line = text.count("\n", 0, match.start()) + 1
                    where = f"{relative}:{line}: includes {included}"
                    if owner not in reach[name] and relative.parts[1] != "tests":
                        yield f"{where}, but {name} does not link {owner}"
                    elif "/detail/" in included:
                        yield f"{where}, an internal header of {owner}"


def main():
    root = pathlib.Path(sys.argv[1] if len(sys.argv) > 1 else __file__).resolve()
    if root.is_file():
        root = root.parent.parent
    found = list(violations(root))
    for line in found:
        print(line)
    if found:
        print(f"{len(found)} include(s) against the layers")
        sys.exit(1)
    print("layers: every include follows the links")


if __name__ == "__main__":
    main()
