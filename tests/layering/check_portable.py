#!/usr/bin/env python3
"""Checks that the core's libraries call only C17, POSIX.1-2008 and their declared libraries.

usage: check_portable.py NM LIST --deps LIB... --core ARCHIVE...

Every name an archive leaves undefined (`nm -u`) must be defined by one of the core's archives, by a declared
library (`nm -D --defined-only` of each LIB: net-snmp, libplist, pugixml, uriparser, the C++ runtime), or be a
function or object of C17 or POSIX.1-2008 (LIST). glibc spells some standard calls with names of its own (the
fortified `__memcpy_chk`, `__isoc99_sscanf`, `__errno_location` for errno); those are read as the standard name.
Each other name is reported as "ARCHIVE: NAME is outside C17 and POSIX.1-2008"; exit status 1 then.
"""
import re
import subprocess
import sys

# Names the compiler and the C++ headers emit on their own (start-up, exceptions, thread-local storage, stack
# protection, assert's failure call): the ABI, not calls the code writes.
ABI = {"_GLOBAL_OFFSET_TABLE_", "__dso_handle", "__tls_get_addr", "__stack_chk_fail", "__stack_chk_guard",
       "__cxa_atexit", "__cxa_finalize", "__cxa_thread_atexit_impl", "__gmon_start__", "__assert_fail",
       "__libc_single_threaded", "__ctype_b_loc", "__ctype_tolower_loc", "__ctype_toupper_loc"}
# The sanitizers' instrumentation calls its own runtime (the sanitize and tsan presets).
SANITIZER = re.compile(r"^__(asan|ubsan|tsan|lsan|sanitizer)_")


def standard_name(name):
    """The standard name glibc's own spelling stands for."""
    if name == "__errno_location":
        return "errno"
    name = re.sub(r"^__isoc(99|23)_", "", name)
    fortified = re.fullmatch(r"__(\w+)_chk", name)
    return fortified.group(1) if fortified else name


def symbols(nm, *args):
    out = subprocess.run([nm, *args], check=True, capture_output=True, text=True).stdout
    return {line.split()[-1].split("@")[0] for line in out.splitlines() if line.strip() and not line.endswith(":")}


def main(argv):
    nm, listing = argv[1], argv[2]
    deps = argv[argv.index("--deps") + 1:argv.index("--core")]
    core = argv[argv.index("--core") + 1:]
    standard = set()
    with open(listing, encoding="utf-8") as f:
        for line in f:
            line = line.split("#", 1)[0].strip()
            if line and not line.startswith("["):
                standard.update(line.split())
    provided = set().union(*(symbols(nm, "--defined-only", a) for a in core))
    provided |= set().union(*(symbols(nm, "-D", "--defined-only", lib) for lib in deps))
    failed = False
    for archive in core:
        for name in sorted(symbols(nm, "-u", archive)):
            if name in provided or name in ABI or SANITIZER.match(name) or standard_name(name) in standard:
                continue
            print(f"{archive}: {name} is outside C17 and POSIX.1-2008")
            failed = True
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
