#!/usr/bin/env python3
"""check_layers.py ROOT: every #include "name.h" of a module names a header of the module or of one it may use;
prints "file:line: module -> owners (header)" for each that does not (owners "?": no project header), exits 1 then."""
import os, re, sys

SOURCE = "Helper/XPCService/Source/"
LAYERS = {  # folder (the longest matching one wins) -> (module, the modules below it that it may include)
    SOURCE + "base": ("base", set()),
    SOURCE + "protocol": ("protocol", set()),
    SOURCE + "profile_store": ("profile_store", {"base"}),
    SOURCE + "discovery": ("discovery", {"profile_store", "base"}),
    SOURCE + "service": ("service", {"discovery", "profile_store", "base", "protocol"}),
    SOURCE + "service/dbus": ("dbus", {"service", "discovery", "profile_store", "base", "protocol"}),
    SOURCE + "service/xpc": ("xpc", {"service", "base", "protocol"}),
    # The client reads profile files itself.
    "Helper/XPCService/Client": ("client", {"profile_store", "base", "protocol"}),
}
INCLUDE = re.compile(r'^\s*#\s*(?:include|import)\s+"([^"]+)"')


def main(root):
    headers, sources = {}, set()  # header name -> owning modules; (file, module)
    for prefix in LAYERS:
        for folder, _, files in os.walk(os.path.join(root, prefix)):
            rel = os.path.relpath(folder, root)
            module = LAYERS[max((p for p in LAYERS if rel == p or rel.startswith(p + "/")), key=len)][0]
            for f in files:
                if f.endswith((".h", ".hpp")): headers.setdefault(f, set()).add(module)
                if f.endswith((".h", ".hpp", ".c", ".cc", ".mm", ".m")): sources.add((os.path.join(rel, f), module))
    allowed = {module: below | {module} for module, below in LAYERS.values()}
    problems = [f"{rel}:{number}: {module} -> {'/'.join(sorted(owners)) or '?'} ({name})"
                for rel, module in sorted(sources)
                for number, line in enumerate(open(os.path.join(root, rel), encoding="utf-8", errors="replace"), 1)
                for name in INCLUDE.findall(line)
                for owners in [headers.get(os.path.basename(name), set())] if not owners & allowed[module]]
    print("\n".join(problems + [f"{len(sources)} files checked, {len(problems)} includes against the layers"]))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1] if len(sys.argv) > 1 else "."))
