// The plist reader on arbitrary bytes (XML or binary): whatever it reads, the writer writes, and the text
// written reads back to a tree that writes the same text again.
#include <cstddef>
#include <cstdint>
#include <string>

#include "plist_codec.h"

using namespace tz::plist;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const DictRef ours = parse(std::string(reinterpret_cast<const char*>(data), size)),
                  again = ours ? parse(to_xml(*ours)) : ours, third = again ? parse(to_xml(*again)) : again;
    if (ours && !(again && third && to_xml(*third) == to_xml(*again))) __builtin_trap();
    return 0;
}
