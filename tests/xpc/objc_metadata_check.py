#!/usr/bin/python3
"""Checks the Objective-C metadata of the XPC front on a machine without the SDK.

The front's Objective-C++ sources are compiled with clang for a macOS target
against the project's own declarations header (TZ_XPC_DECLARATIONS_ONLY) into
Mach-O objects, which are never linked. This script reads those objects
itself (load commands, symbols, relocations, then the runtime's protocol_t,
class_t, class_ro_t and method_list_t records) and checks the public face:

  - the protocol's name, that it adopts nothing and has exactly the eight
    required instance methods, in order, with their method and extended types;
  - the exported class: NSObject subclass adopting the protocol, the same eight
    methods in the same order, no class methods, no ivars, no properties;
  - the delegate: adopts NSXPCListenerDelegate, its one method and its type.

Its own reading is compared with llvm-objdump's, so a fault in this reader
shows up as a disagreement instead of a silent pass.

  objc_metadata_check.py check     --clang C --objdump D --sources DIR
  objc_metadata_check.py mutations --clang C --objdump D --sources DIR

"check" compiles the sources and exits 1 with the problems found. "mutations"
compiles deliberately wrong copies (methods reordered, a type changed, an ivar
or property added, ...) and exits 1 unless the checker rejects every one of
them for the expected reason.
"""

import argparse
import os
import re
import shutil
import struct
import subprocess
import sys
import tempfile

SUFFIX = "5E1A9C07_4B2D_4E8F_A613_7D0C2B9E4F18"
PROTOCOL = "TZ_XPC_Protocol" + SUFFIX
SERVICE_CLASS = "TZmacServiceXPC" + SUFFIX
DELEGATE_CLASS = "TZmacXPCServiceDelegate" + SUFFIX
SELECTORS = [
    "tzPListIsAdminProfile_XPC:reply:",
    "tzPListSwapProfile_XPC:reply:",
    "tzPListExistProfile_XPC:reply:",
    "tzPListRemove_XPC:reply:",
    "writeDictionaryToPlistFile_XPC:reply:",
    "writeDataToPlistFile_XPC:reply:",
    "writeDataToPlistFileRename_XPC:reply:",
    "mibwalk_XPC:reply:",
]
METHOD_TYPE = "v32@0:8@16@?24"
EXTENDED_TYPE = 'v32@0:8@"NSString"16@?<v@?@"NSString">24'
DELEGATE_METHOD = ("listener:shouldAcceptNewConnection:", "c32@0:8@16@24")

COMPILE = ["--target=x86_64-apple-macosx11.0", "-fobjc-runtime=macosx-11.0", "-fblocks",
           "-fobjc-arc", "-c"]
# No host headers: the front must get along with its own declarations and the
# compiler's builtin <stddef.h>, and must not see the C++ standard library.
ISOLATION = ["-nostdlibinc", "-nostdinc++", "-DTZ_XPC_DECLARATIONS_ONLY"]

MH_MAGIC_64 = 0xFEEDFACF
LC_SEGMENT_64 = 0x19
LC_SYMTAB = 0x2
N_TYPE = 0x0E
N_SECT = 0x0E
RELATIVE_METHOD_LIST = 0x80000000


class Undefined:
    """A pointer to a symbol this object does not define (e.g. NSObject)."""

    def __init__(self, name):
        self.name = name

    def __repr__(self):
        return "Undefined(%s)" % self.name


class MachO:
    """Just enough of a relocatable 64-bit Mach-O file to follow pointers."""

    def __init__(self, path):
        with open(path, "rb") as f:
            self.data = f.read()
        magic, _, _, _, ncmds, _, _, _ = struct.unpack_from("<IiiIIIII", self.data, 0)
        if magic != MH_MAGIC_64:
            raise ValueError("%s: not a 64-bit Mach-O object" % path)
        self.sections = []  # (segname, sectname, addr, size, offset)
        self.symbols = []   # (name, type, value)
        self.relocs = {}    # address -> (is_extern, symbolnum)
        raw_relocs = []
        at = 32
        for _ in range(ncmds):
            cmd, cmdsize = struct.unpack_from("<II", self.data, at)
            if cmd == LC_SEGMENT_64:
                nsects = struct.unpack_from("<I", self.data, at + 64)[0]
                for i in range(nsects):
                    s = at + 72 + 80 * i
                    sect, seg = (self._name(self.data[s:s + 16]), self._name(self.data[s + 16:s + 32]))
                    addr, size, offset, _, reloff, nreloc = struct.unpack_from("<QQIIII", self.data, s + 32)
                    self.sections.append((seg, sect, addr, size, offset))
                    raw_relocs.append((addr, reloff, nreloc))
            elif cmd == LC_SYMTAB:
                symoff, nsyms, stroff, _ = struct.unpack_from("<IIII", self.data, at + 8)
                for i in range(nsyms):
                    strx, ntype, _, _, value = struct.unpack_from("<IBBHQ", self.data, symoff + 16 * i)
                    self.symbols.append((self._cstr(stroff + strx), ntype, value))
            at += cmdsize
        for addr, reloff, nreloc in raw_relocs:
            for i in range(nreloc):
                r_address, info = struct.unpack_from("<iI", self.data, reloff + 8 * i)
                self.relocs[addr + r_address] = (bool((info >> 27) & 1), info & 0xFFFFFF)

    @staticmethod
    def _name(raw):
        return raw.split(b"\0", 1)[0].decode()

    def _cstr(self, offset):
        end = self.data.index(b"\0", offset)
        return self.data[offset:end].decode("utf-8", "replace")

    def section(self, seg, sect):
        for s in self.sections:
            if s[0] == seg and s[1] == sect:
                return s
        return None

    def _file_offset(self, addr):
        for _, _, start, size, offset in self.sections:
            if start <= addr < start + size:
                return offset + addr - start
        raise ValueError("address 0x%x lies in no section" % addr)

    def u32(self, addr):
        return struct.unpack_from("<I", self.data, self._file_offset(addr))[0]

    def pointer(self, addr):
        """The target of the pointer stored at `addr`: an address, an
        Undefined, or 0 for a null pointer."""
        stored = struct.unpack_from("<Q", self.data, self._file_offset(addr))[0]
        reloc = self.relocs.get(addr)
        if reloc is None or not reloc[0]:
            return stored  # section-relative: the stored value is the address
        name, ntype, value = self.symbols[reloc[1]]
        if ntype & N_TYPE != N_SECT:
            return Undefined(name)
        return value + stored

    def string(self, addr):
        if not isinstance(addr, int) or addr == 0:
            return None
        return self._cstr(self._file_offset(addr))

    def pointer_list(self, seg, sect):
        s = self.section(seg, sect)
        if s is None:
            return []
        return [self.pointer(s[2] + i) for i in range(0, s[3], 8)]


def method_list(obj, addr):
    """[(selector, type)] of a method_list_t, [] for a null list."""
    if addr == 0:
        return []
    entsize_flags, count = obj.u32(addr), obj.u32(addr + 4)
    if entsize_flags & RELATIVE_METHOD_LIST:
        raise ValueError("relative method lists are not read by this checker")
    entsize = entsize_flags & 0xFFFC
    out = []
    for i in range(count):
        entry = addr + 8 + entsize * i
        out.append((obj.string(obj.pointer(entry)), obj.string(obj.pointer(entry + 8))))
    return out


def read_protocol(obj, addr):
    p = [obj.pointer(addr + 8 * i) for i in range(8)]
    # isa, name, protocols, instance, class, optional instance, optional
    # class methods, instance properties; then size, flags, extended types.
    instance = method_list(obj, p[3])
    extended_addr = obj.pointer(addr + 72)
    extended = []
    if extended_addr != 0:
        extended = [obj.string(obj.pointer(extended_addr + 8 * i)) for i in range(len(instance))]
    return {
        "name": obj.string(p[1]),
        "adopted": protocol_names(obj, p[2]),
        "instance": instance,
        "class": method_list(obj, p[4]),
        "optional_instance": method_list(obj, p[5]),
        "optional_class": method_list(obj, p[6]),
        "properties": p[7],
        "extended": extended,
    }


def protocol_names(obj, list_addr):
    if list_addr == 0:
        return []
    count = struct.unpack_from("<Q", obj.data, obj._file_offset(list_addr))[0]
    names = []
    for i in range(count):
        proto = obj.pointer(list_addr + 8 + 8 * i)
        names.append(obj.string(obj.pointer(proto + 8)) if isinstance(proto, int) else proto.name)
    return names


def class_ro(obj, cls):
    ro = obj.pointer(cls + 32)
    p = lambda i: obj.pointer(ro + 16 + 8 * i)
    # ivarLayout, name, baseMethods, baseProtocols, ivars, weakIvarLayout,
    # baseProperties
    return {
        "name": obj.string(p(1)),
        "methods": method_list(obj, p(2)),
        "protocols": protocol_names(obj, p(3)),
        "ivars": p(4),
        "properties": p(6),
    }


def read_class(obj, addr):
    info = class_ro(obj, addr)
    superclass = obj.pointer(addr + 8)
    if isinstance(superclass, Undefined):
        info["superclass"] = superclass.name.replace("_OBJC_CLASS_$_", "")
    else:
        info["superclass"] = class_ro(obj, superclass)["name"] if superclass else None
    meta = obj.pointer(addr)
    info["class_methods"] = class_ro(obj, meta)["methods"] if isinstance(meta, int) and meta else []
    return info


def read_metadata(paths):
    """Protocols and classes of all objects, by name. A protocol emitted into
    several objects must read the same in each."""
    protocols, classes, problems = {}, {}, []
    for path in paths:
        obj = MachO(path)
        for addr in obj.pointer_list("__DATA", "__objc_protolist"):
            proto = read_protocol(obj, addr)
            seen = protocols.setdefault(proto["name"], proto)
            if seen != proto:
                problems.append("protocol %s reads differently in %s" % (proto["name"], path))
        for addr in obj.pointer_list("__DATA", "__objc_classlist"):
            cls = read_class(obj, addr)
            classes[cls["name"]] = cls
    return protocols, classes, problems


def objdump_methods(objdump, path):
    """(selector, type) pairs in the order llvm-objdump prints them."""
    out = subprocess.run([objdump, "--macho", "--objc-meta-data", path], check=True,
                         capture_output=True, text=True).stdout
    pairs, name = [], None
    for line in out.splitlines():
        m = re.match(r"\s*(name|types) 0x[0-9a-f]+ (.*)$", line)
        if m and m.group(1) == "name":
            name = m.group(2)
        elif m and name is not None:
            pairs.append((name, m.group(2)))
            name = None
        else:
            name = None
    return pairs


def contains_run(haystack, needle):
    n = len(needle)
    return any(haystack[i:i + n] == needle for i in range(len(haystack) - n + 1))


def check(paths, objdump):
    """The problems found in the objects at `paths`; [] when all is well."""
    protocols, classes, problems = read_metadata(paths)

    proto = protocols.get(PROTOCOL)
    if proto is None:
        problems.append("protocol %s not found (found: %s)" % (PROTOCOL, sorted(protocols)))
    else:
        names = [m[0] for m in proto["instance"]]
        if names != SELECTORS:
            problems.append("protocol selectors or their order differ: %s" % names)
        for sel, typ in proto["instance"]:
            if typ != METHOD_TYPE:
                problems.append("protocol method %s has type %s" % (sel, typ))
        for sel, ext in zip(names, proto["extended"]):
            if ext != EXTENDED_TYPE:
                problems.append("protocol method %s has extended type %s" % (sel, ext))
        if len(proto["extended"]) != len(names):
            problems.append("protocol has no extended method types")
        for kind in ("class", "optional_instance", "optional_class"):
            if proto[kind]:
                problems.append("protocol declares %s methods: %s" % (kind, proto[kind]))
        if proto["properties"]:
            problems.append("protocol declares properties")
        if proto["adopted"]:
            problems.append("protocol adopts %s" % proto["adopted"])

    service = classes.get(SERVICE_CLASS)
    if service is None:
        problems.append("class %s not found" % SERVICE_CLASS)
    else:
        if [m[0] for m in service["methods"]] != SELECTORS:
            problems.append("class selectors or their order differ: %s" % [m[0] for m in service["methods"]])
        for sel, typ in service["methods"]:
            if typ != METHOD_TYPE:
                problems.append("class method %s has type %s" % (sel, typ))
        if service["class_methods"]:
            problems.append("service class has class methods: %s" % service["class_methods"])
        if service["ivars"]:
            problems.append("service class declares instance variables")
        if service["properties"]:
            problems.append("service class declares properties")
        if service["protocols"] != [PROTOCOL]:
            problems.append("service class adopts %s" % service["protocols"])
        if service["superclass"] != "NSObject":
            problems.append("service class derives from %s" % service["superclass"])

    delegate = classes.get(DELEGATE_CLASS)
    if delegate is None:
        problems.append("class %s not found" % DELEGATE_CLASS)
    else:
        if delegate["methods"] != [DELEGATE_METHOD]:
            problems.append("delegate methods differ: %s" % delegate["methods"])
        if delegate["ivars"] or delegate["properties"]:
            problems.append("delegate declares instance variables or properties")
        if delegate["protocols"] != ["NSXPCListenerDelegate"]:
            problems.append("delegate adopts %s" % delegate["protocols"])
        if delegate["superclass"] != "NSObject":
            problems.append("delegate derives from %s" % delegate["superclass"])

    # An independent reader must see the same method lists.
    printed = [pair for path in paths for pair in objdump_methods(objdump, path)]
    for label, methods in (("protocol", proto and proto["instance"]),
                           ("service class", service and service["methods"]),
                           ("delegate", delegate and delegate["methods"])):
        if methods and not contains_run(printed, methods):
            problems.append("llvm-objdump reads the %s's methods differently" % label)
    return problems


def compile_sources(clang, source_dir, out_dir, strict):
    objects = []
    include = ["-I", source_dir, "-I", os.path.dirname(os.path.abspath(source_dir))]
    for name in sorted(os.listdir(source_dir)):
        if not name.endswith(".mm"):
            continue
        obj = os.path.join(out_dir, name[:-3] + ".o")
        warnings = ["-Wall", "-Wextra", "-Werror"] if strict else ["-w"]
        subprocess.run([clang] + COMPILE + ISOLATION + warnings + include +
                       [os.path.join(source_dir, name), "-o", obj], check=True)
        objects.append(obj)
    if not objects:
        raise SystemExit("no .mm sources in %s" % source_dir)
    return objects


def swap_blocks(text, first, second):
    """Swaps the method blocks that begin with the lines holding `first` and
    `second` (each block runs to its closing brace line)."""
    def block(start):
        begin = text.index(start)
        begin = text.rindex("\n", 0, begin) + 1
        end = text.index("\n}\n", begin) + 3
        return begin, end
    (a0, a1), (b0, b1) = sorted([block(first), block(second)])
    return text[:a0] + text[b0:b1] + text[a1:b0] + text[a0:a1] + text[b1:]


def swap_lines(text, first, second):
    lines = text.split("\n")
    i = next(n for n, l in enumerate(lines) if first in l)
    j = next(n for n, l in enumerate(lines) if second in l)
    lines[i], lines[j] = lines[j], lines[i]
    return "\n".join(lines)


def replace_once(old, new):
    def edit(text):
        if text.count(old) != 1:
            raise SystemExit("mutation no longer applies: %r occurs %d times" % (old, text.count(old)))
        return text.replace(old, new)
    return edit


IMPL = "@implementation " + SERVICE_CLASS
# (what is wrong, file, edit, a text the checker's complaint must contain)
MUTATIONS = [
    ("protocol methods reordered", "tz_xpc_service.h",
     lambda t: swap_lines(t, "(void)tzPListSwapProfile_XPC", "(void)tzPListExistProfile_XPC"),
     "protocol selectors or their order"),
    ("class methods reordered", "tz_xpc_service.mm",
     lambda t: swap_blocks(t, "(void)writeDataToPlistFileRename_XPC", "(void)mibwalk_XPC"),
     "class selectors or their order"),
    ("selector misspelt", "tz_xpc_service.h",
     replace_once("(void)mibwalk_XPC:", "(void)mibWalk_XPC:"), "protocol selectors"),
    ("request typed id", "tz_xpc_service.h",
     replace_once("tzPListRemove_XPC:(NSString *)request", "tzPListRemove_XPC:(id)request"),
     "tzPListRemove_XPC:reply: has extended type"),
    ("reply block takes NSData", "tz_xpc_service.h",
     replace_once("writeDataToPlistFile_XPC:(NSString *)request reply:(void (^)(NSString *reply))",
                  "writeDataToPlistFile_XPC:(NSString *)request reply:(void (^)(NSData *reply))"),
     "writeDataToPlistFile_XPC:reply: has extended type"),
    ("method returns BOOL", "tz_xpc_service.mm",
     replace_once("- (void)tzPListExistProfile_XPC", "- (BOOL)tzPListExistProfile_XPC"),
     "class method tzPListExistProfile_XPC:reply: has type"),
    ("instance variable added", "tz_xpc_service.mm",
     replace_once(IMPL + "\n", IMPL + " {\n    int requests;\n}\n"), "instance variables"),
    ("property added", "tz_xpc_service.h",
     replace_once("<TZ_XPC_Protocol%s>\n@end" % SUFFIX, "<TZ_XPC_Protocol%s>\n@property int count;\n@end" % SUFFIX),
     "declares properties"),
    ("class method added", "tz_xpc_service.mm",
     replace_once(IMPL + "\n", IMPL + "\n+ (void)warmUp {\n}\n"), "class methods"),
    ("optional method in the protocol", "tz_xpc_service.h",
     replace_once("reply:(void (^)(NSString *reply))reply;\n@end",
                  "reply:(void (^)(NSString *reply))reply;\n@optional\n- (void)ping;\n@end"),
     "optional_instance methods"),
    ("delegate answers int", "main.mm",
     replace_once("- (BOOL)listener:", "- (int)listener:"), "delegate methods differ"),
]


def run_mutations(args):
    failures = 0
    for what, name, edit, expected in MUTATIONS:
        with tempfile.TemporaryDirectory() as tmp:
            src = os.path.join(tmp, "xpc")
            shutil.copytree(args.sources, src)
            # The bridge header lives one level up, beside the core.
            parent = os.path.dirname(os.path.abspath(args.sources))
            shutil.copy(os.path.join(parent, "tz_service_bridge.h"), tmp)
            path = os.path.join(src, name)
            with open(path) as f:
                original = f.read()
            changed = edit(original)
            if changed == original:
                raise SystemExit("mutation %r changed nothing" % what)
            with open(path, "w") as f:
                f.write(changed)
            out = os.path.join(tmp, "obj")
            os.mkdir(out)
            problems = check(compile_sources(args.clang, src, out, strict=False), args.objdump)
            hit = [p for p in problems if expected in p]
            print("%-34s %s" % (what, "rejected: " + hit[0] if hit else "NOT REJECTED %s" % problems))
            failures += not hit
    return 1 if failures else 0


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("mode", choices=["check", "mutations"])
    parser.add_argument("--clang", required=True)
    parser.add_argument("--objdump", required=True)
    parser.add_argument("--sources", required=True, help="the front's source folder")
    args = parser.parse_args()
    if args.mode == "mutations":
        return run_mutations(args)
    with tempfile.TemporaryDirectory() as tmp:
        objects = compile_sources(args.clang, args.sources, tmp, strict=True)
        problems = check(objects, args.objdump)
    for p in problems:
        print("problem:", p)
    if not problems:
        print("ok: %s, %s and %s with %d methods" % (PROTOCOL, SERVICE_CLASS, DELEGATE_CLASS, len(SELECTORS)))
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
