#include "guarded_format.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace tz {

void guarded_format(char* buf, std::size_t size, const char* fmt, ...) {
    std::memset(buf, 0, size);
    va_list args;
    va_start(args, fmt);
    const int needed = std::vsnprintf(buf, size, fmt, args);
    va_end(args);
    if (needed < 0 || static_cast<std::size_t>(needed) >= size) std::abort();
}

}  // namespace tz
