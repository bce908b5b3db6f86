// UTF-8 validation: the one test of whether a text has a UTF-8 form. Request
// fields without one give no path, texts without one are not written.
#pragma once

#include <string_view>

namespace tz {

// True when `text` is well-formed UTF-8: no overlong forms, no surrogates,
// nothing above U+10FFFF, no sequence cut short.
bool is_valid_utf8(std::string_view text);

}  // namespace tz
