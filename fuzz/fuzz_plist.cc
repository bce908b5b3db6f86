// The plist reader on arbitrary bytes (XML or binary): whatever it reads, the writer writes, and the text
// written reads back to a tree that writes the same text again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "plist_codec.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const tz::plist::DictRef ours = tz::plist::parse(std::string(reinterpret_cast<const char*>(data), size));
    if (!ours) return 0;
    const tz::plist::DictRef again = tz::plist::parse(tz::plist::to_xml(*ours));
    if (!again) __builtin_trap();
    const std::string xml = tz::plist::to_xml(*again);
    const tz::plist::DictRef third = tz::plist::parse(xml);
    if (!third || tz::plist::to_xml(*third) != xml) __builtin_trap();
    return 0;
}
