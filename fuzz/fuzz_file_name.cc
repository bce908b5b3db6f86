// The profile file-name test on arbitrary bytes, checked against its rules
// written out a second way: 1 to 27 characters before the first dot (or at
// most 27 without one), at most 3 after it, each character from the allowed
// set. A difference traps.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tz_discovery.h"

namespace {

bool allowed(unsigned char c) {
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
    return std::strchr("!#$%&'()-.^_`{}~", c) != nullptr && c != '\0';
}

bool expected(const std::string& name) {
    if (name.empty()) return false;
    for (unsigned char c : name)
        if (!allowed(c)) return false;
    const std::size_t dot = name.find('.');
    if (dot == std::string::npos) return name.size() <= 27;
    return dot >= 1 && dot <= 27 && name.size() - dot - 1 <= 3;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string bytes(reinterpret_cast<const char*>(data), size);
    const std::string name = bytes.substr(0, bytes.find('\0'));  // as a C string
    if (bJudgement8point3Format(name.c_str()) != expected(name)) __builtin_trap();
    return 0;
}
