#!/usr/bin/env python3
"""check_portable.py NM LIST --deps LIB... --core ARCHIVE...: each name a core archive leaves undefined must be
defined by a core archive or a LIB (the C++ runtime and the libraries the core declares), or be named in LIST (C17 and
POSIX.1-2008). Prints "ARCHIVE: NAME is outside C17 and POSIX.1-2008" for each other name and exits 1 then."""
import re, subprocess, sys

# Names the compiler and the C++ headers emit themselves (start-up, exceptions, TLS, stack guard, assert's failure).
ABI = {"_GLOBAL_OFFSET_TABLE_", "__dso_handle", "__tls_get_addr", "__stack_chk_fail", "__stack_chk_guard",
       "__cxa_atexit", "__cxa_finalize", "__cxa_thread_atexit_impl", "__gmon_start__", "__assert_fail",
       "__libc_single_threaded", "__ctype_b_loc", "__ctype_tolower_loc", "__ctype_toupper_loc"}
# The sanitizers' instrumentation calls its own runtime (the sanitize and tsan presets).
SANITIZER = re.compile(r"^__(asan|ubsan|tsan|lsan|sanitizer)_")


def standard_name(name):  # glibc's own spellings of standard calls: errno, the fortified __memcpy_chk, __isoc99_sscanf
    name = "errno" if name == "__errno_location" else re.sub(r"^__isoc(99|23)_", "", name)
    return re.sub(r"^__(\w+)_chk$", r"\1", name)


def symbols(nm, *args):
    out = subprocess.run([nm, *args], check=True, capture_output=True, text=True).stdout
    return {line.split()[-1].split("@")[0] for line in out.splitlines() if line.strip() and not line.endswith(":")}


def main(nm, listing, *rest):
    deps, core = rest[rest.index("--deps") + 1:rest.index("--core")], rest[rest.index("--core") + 1:]
    standard = {name for line in open(listing, encoding="utf-8") if not line.lstrip().startswith("[")
                for name in line.split("#", 1)[0].split()}
    provided = ABI.union(*(symbols(nm, "--defined-only", a) for a in core),
                         *(symbols(nm, "-D", "--defined-only", lib) for lib in deps))
    outside = [f"{archive}: {name} is outside C17 and POSIX.1-2008" for archive in core
               for name in sorted(symbols(nm, "-u", archive))
               if name not in provided and not SANITIZER.match(name) and standard_name(name) not in standard]
    print("\n".join(outside))
    return 1 if outside else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
