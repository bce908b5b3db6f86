// UTF-8 validation: the one test of whether a text has a UTF-8 form. Request
// fields without one give no path, texts without one are not written.
#pragma once

#include <cstddef>
#include <string_view>

namespace tz {

// True when `text` is well-formed UTF-8: no overlong forms, no surrogates,
// nothing above U+10FFFF, no sequence cut short.
bool is_valid_utf8(std::string_view text);

// The length of the well-formed UTF-8 sequence that starts at `p` (1 for an
// ASCII byte), or 0 when none does.
// REQUIRES: p < end.
std::size_t utf8_sequence_length(const unsigned char* p, const unsigned char* end);

}  // namespace tz
