#!/usr/bin/python3
# objc_metadata_check.py CLANG OBJDUMP SOURCE_DIR: checks the Objective-C metadata of the XPC front compiled for
# macOS (no SDK, never linked) against methods.h, in its order; a dump it cannot read finds no class, so it fails.
import re, subprocess, sys, tempfile
from pathlib import Path

SUFFIX = "5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18"
PROTOCOL, SERVICE = "TZ_XPC_Protocol" + SUFFIX, "TZmacServiceXPC" + SUFFIX
METHODS = [(s + ":reply:", "v32@0:8@16@?24") for s in re.findall(r'^inline constexpr Method k\w+\{"(\w+)"',
           (Path(__file__).resolve().parents[2] / "Helper/XPCService/Source/protocol/methods.h").read_text(), re.M)]
EXTENDED = ['v32@0:8@"NSString"16@?<v@?@"NSString">24'] * len(METHODS)
CLASSES = [("service class", SERVICE, METHODS, PROTOCOL), ("delegate", "TZmacXPCServiceDelegate" + SUFFIX,
           [("listener:shouldAcceptNewConnection:", "c32@0:8@16@24")], "NSXPCListenerDelegate")]
# No host headers: the front gets along with its own declarations and the compiler's <stddef.h>, no C++ library.
COMPILE = ["--target=x86_64-apple-macosx11.0", "-fobjc-runtime=macosx-11.0", "-fblocks", "-fobjc-arc",
           "-nostdlibinc", "-nostdinc++", "-DTZ_XPC_DECLARATIONS_ONLY", "-c"]


def dump(objdump, obj, *args, pattern=None):
    out = subprocess.run([objdump, "--macho", *args, obj], check=True, capture_output=True, text=True).stdout
    return re.findall(pattern, out, re.M) if pattern else out


# [(the protocol's kinds of records, its extended types: pointers to __objc_methtype up to the next symbol)] or [].
def protocol_records(objdump, obj):
    symbols = [(int(a, 16), s, n) for a, s, n in dump(objdump, obj, "-t", pattern=r"^(\w{16}) .{7} (\S+) (.*)$")]
    own = {n[9:-len(PROTOCOL) - 1]: a for a, _, n in symbols  # __OBJC_$_<kind>_<protocol>
           if n.startswith("__OBJC_$_") and n.endswith("_" + PROTOCOL)}
    start = own.get("PROTOCOL_METHOD_TYPES")
    if start is None:  # no protocol with extended types in this object
        return []
    rows = dump(objdump, obj, "--section=__DATA,__objc_const", pattern=r"^(\w{16})\s+(.*)$")
    base, data = int(rows[0][0], 16), b"".join(bytes.fromhex(t) for _, t in rows)
    end = min([a for a, s, _ in symbols if s == "__DATA,__objc_const" and a > start], default=base + len(data))
    strings = {int(a, 16): t.replace('\\"', '"') for a, t in
               dump(objdump, obj, "--section=__TEXT,__objc_methtype", pattern=r"^(\w{16})\s+(.*)$")}
    pointers = [int.from_bytes(data[a - base:a - base + 8], "little") for a in range(start, end, 8)]
    return [(sorted(own), [strings.get(p) for p in pointers])]


def check(objects, objdump):  # the problems found in the objects
    classes, protocols, problems = {}, [], []
    between = lambda text, start, end: text.split(start, 1)[1].split(end, 1)[0] if start in text else ""
    for obj in objects:
        listing = between(dump(objdump, obj, "--objc-meta-data"), "__objc_classlist) section\n", "Contents of")
        for block in re.split(r"^\w+ 0x\w+ _OBJC_CLASS_\$_", listing, flags=re.M)[1:]:
            name, _, block = block.partition("\n")
            classes[name] = block.split("\nMeta Class\n")  # the class, then its metaclass
        protocols += protocol_records(objdump, obj)
    expect = lambda what, got, wanted: got == wanted or problems.append("%s: %s, expected %s" % (what, got, wanted))
    field = lambda text, key, at=0: [v.split()[at] for v in re.findall(r"^\s*%s (.*)$" % key, text, re.M)]
    methods = lambda text, start, end: re.findall(r"name 0x\w+ (\S+)\n\s*types 0x\w+ (\S+)", between(text, start, end))
    for label, cls, wanted, adopts in CLASSES:
        block, meta = classes.get(cls, ["", ""])
        expect(label + " name and superclass", field(block, "name", -1)[:1] + field(block, "superclass", -1),
               [cls, "_OBJC_CLASS_$_NSObject"])
        # The name two lines below a list entry is that adopted protocol's.
        expect(label + " protocols", re.findall(r"list\[\d+\] .*\n.*\n\s*name 0x\w+ (\S+)", block), [adopts])
        expect(label + " methods", methods(block, " baseMethods ", " baseProtocols "), wanted)
        expect(label + " class methods", methods(meta, " baseMethods ", " baseProtocols "), [])
        expect(label + " ivars and properties", field(block, "ivars") + field(block, "baseProperties"), ["0x0"] * 2)
    expect("protocol methods", methods(classes.get(SERVICE, [""])[0], " instanceMethods ", " classMethods "), METHODS)
    # Each emitted protocol, its records read from the symbols: the dump prints 0x0 for those fields of a protocol.
    for kinds, types in protocols or [(None, None)]:
        expect("protocol records", kinds, ["PROTOCOL_INSTANCE_METHODS", "PROTOCOL_METHOD_TYPES"])
        expect("protocol extended types", types, EXTENDED)
    return problems


def main(clang, objdump, front):
    flags = ["-Wall", "-Wextra", "-Werror", "-I", front, "-I", Path(front).resolve().parent]
    with tempfile.TemporaryDirectory() as tmp:
        for source in sorted(Path(front).glob("*.mm")):
            subprocess.run([clang, *COMPILE, *flags, source, "-o", Path(tmp, source.stem + ".o")], check=True)
        problems = check(sorted(Path(tmp).glob("*.o")), objdump)
    print("\n".join("problem: " + p for p in problems) or "ok: the front's metadata is as expected")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]) if len(sys.argv) == 4 else "usage: objc_metadata_check.py CLANG OBJDUMP SOURCE_DIR")
