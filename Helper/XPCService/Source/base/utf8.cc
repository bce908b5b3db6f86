#include "utf8.h"

#include <cstdint>
#include <cstring>

namespace tz {

std::size_t utf8_sequence_length(const unsigned char* p, const unsigned char* end) {
    const unsigned c = *p;
    if (c < 0x80) return 1;
    std::size_t extra = 0;
    unsigned low = 0x80;
    unsigned high = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        extra = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
        extra = 2;
        if (c == 0xE0) low = 0xA0;   // no overlong forms
        if (c == 0xED) high = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
        extra = 3;
        if (c == 0xF0) low = 0x90;
        if (c == 0xF4) high = 0x8F;  // nothing above U+10FFFF
    } else {
        return 0;
    }
    if (static_cast<std::size_t>(end - p) <= extra) return 0;
    if (p[1] < low || p[1] > high) return 0;
    for (std::size_t i = 2; i <= extra; ++i)
        if (p[i] < 0x80 || p[i] > 0xBF) return 0;
    return extra + 1;
}

bool is_valid_utf8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const auto* end = p + text.size();
    while (p < end) {
        // Most text is ASCII: eight bytes at a time while no high bit is set.
        std::uint64_t word;
        while (end - p >= 8 && (std::memcpy(&word, p, 8), (word & 0x8080808080808080u) == 0)) p += 8;
        if (p == end) break;
        if (*p < 0x80) {
            ++p;
            continue;
        }
        const std::size_t length = utf8_sequence_length(p, end);
        if (length == 0) return false;
        p += length;
    }
    return true;
}

}  // namespace tz
