#!/usr/bin/env python3
"""Checks the include graph of the sources against the layers.

usage: check_layers.py ROOT   (the repository's top folder)

Every #include "name.h" in a module's files must name a header of the module
itself or of a module it may use (ALLOWED below); an include that points up
(the profile store including a service header) or that names no header of the
project is reported as "file:line: module -> module (header)". Exits 1 when
anything is reported.
"""
import os
import re
import sys

SOURCE = "Helper/XPCService/Source"
MODULES = {  # folder -> module name; the longest matching folder wins
    f"{SOURCE}/base": "base",
    f"{SOURCE}/protocol": "protocol",
    f"{SOURCE}/profile_store": "profile_store",
    f"{SOURCE}/discovery": "discovery",
    f"{SOURCE}/service": "service",
    f"{SOURCE}/service/dbus": "dbus",
    f"{SOURCE}/service/xpc": "xpc",
    "Helper/XPCService/Client": "client",
}
# What each module may include besides itself: only layers below it.
ALLOWED = {
    "base": set(),
    "protocol": set(),
    "profile_store": {"base"},
    "discovery": {"profile_store", "base"},
    "service": {"discovery", "profile_store", "base", "protocol"},
    "dbus": {"service", "discovery", "profile_store", "base", "protocol"},
    "xpc": {"service", "base", "protocol"},
    # The command-line client reads profile files itself and takes the bus names from the front's one list of them.
    "client": {"dbus", "profile_store", "base", "protocol"},
}
INCLUDE = re.compile(r'^\s*#\s*(?:include|import)\s+"([^"]+)"')


def module_of(rel):
    folder = os.path.dirname(rel)
    best = None
    for prefix, name in MODULES.items():
        if folder == prefix or folder.startswith(prefix + "/"):
            if best is None or len(prefix) > len(best[0]):
                best = (prefix, name)
    return best[1] if best else None


def main(root):
    headers = {}  # file name -> owning modules
    sources = []
    for prefix in MODULES:
        for dirpath, _, files in os.walk(os.path.join(root, prefix)):
            for f in files:
                rel = os.path.relpath(os.path.join(dirpath, f), root)
                module = module_of(rel)
                if f.endswith((".h", ".hpp")):
                    headers.setdefault(f, set()).add(module)
                if f.endswith((".h", ".hpp", ".c", ".cc", ".mm", ".m")):
                    sources.append((rel, module))
    problems = []
    for rel, module in sorted(set(sources)):
        with open(os.path.join(root, rel), encoding="utf-8", errors="replace") as text:
            for number, line in enumerate(text, 1):
                match = INCLUDE.match(line)
                if not match:
                    continue
                name = os.path.basename(match.group(1))
                owners = headers.get(name)
                if not owners:
                    problems.append(f"{rel}:{number}: {module} -> ? ({match.group(1)}: no header of the project)")
                elif not owners & ({module} | ALLOWED[module]):
                    problems.append(f"{rel}:{number}: {module} -> {'/'.join(sorted(owners))} ({match.group(1)})")
    for p in problems:
        print(p)
    print(f"{len(sources)} files checked, {len(problems)} includes against the layers")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
