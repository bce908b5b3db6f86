// The one test of a profile file name, used on names already in the plist and
// on names the printer reports. Despite the "8.3" heritage of its name, the
// base may be up to 27 characters: longer names reach the menu cut, shorter
// ones are what the printer's firmware produces.
#include <cstring>
#include <string_view>

#include "tz_discovery.h"

namespace {
constexpr std::size_t kMaxBase = 27;
constexpr std::size_t kMaxExtension = 3;
constexpr std::string_view kPunctuation = "!#$%&'()-.^_`{}~";
}  // namespace

extern "C" bool FileNameFilter(int32_t c) {
    // The character arrives sign-extended: every byte from 0x80 up is negative
    // here and is refused, as the C locale's classes refuse it.
    if (c < 0 || c > 127) return false;
    if ((c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9')) return true;
    return c != 0 && kPunctuation.find(static_cast<char>(c)) != std::string_view::npos;
}

extern "C" bool bJudgement8point3Format(const char* name) {
    if (name == nullptr || name[0] == '\0') return false;
    const std::string_view text(name);
    const std::size_t dot = text.find('.');
    if (dot != std::string_view::npos) {
        if (dot < 1 || dot > kMaxBase) return false;
        // "ABC." is accepted; after the first dot, further dots count as
        // extension characters.
        if (text.size() - dot - 1 > kMaxExtension) return false;
    } else if (text.size() > kMaxBase) {
        return false;
    }
    for (const char ch : text) {
        if (!FileNameFilter(static_cast<signed char>(ch))) return false;
    }
    return true;
}
