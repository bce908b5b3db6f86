// Size-guarded formatting into fixed buffers. Paths and keys live in fixed
// buffers of 255 or 256 bytes; a text that does not fit ends the process
// instead of being cut, because a cut path would name another file.
#pragma once

#include <cstddef>

namespace tz {

// Zero-fills buf[0..size) and formats into it. When the formatted text needs
// `size` bytes or more (no room for the terminating zero), calls abort().
// Never returns with a truncated text.
[[gnu::format(printf, 3, 4)]] void guarded_format(char* buf, std::size_t size, const char* fmt,
                                                  ...);

}  // namespace tz
