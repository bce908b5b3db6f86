// File URLs as the platform's URL-from-string call reads them: a string that
// is not a valid URL (a space, a non-ASCII byte or another character a URL
// does not allow) gives no URL; a file URL's path is percent-decoded.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace tz {

// The decoded, absolute path of a "file:" URL (scheme case-insensitive, host
// empty or "localhost", query and fragment not part of the path, a trailing
// '/' dropped). std::nullopt when the string is not a valid URL, is not a
// file URL, or its path is empty, relative or decodes to a zero byte.
std::optional<std::string> file_url_path(std::string_view url);

}  // namespace tz
