// The profile file-name test on arbitrary bytes: an accepted name is 1 to 31 bytes and names no folder.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "tz_discovery.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string name(reinterpret_cast<const char*>(data), strnlen(reinterpret_cast<const char*>(data), size));
    if (bJudgement8point3Format(name.c_str()) &&
        (name.empty() || name.size() > 31 || name.find('/') != std::string::npos))
        __builtin_trap();
    return 0;
}
