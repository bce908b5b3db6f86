#include "file_url.h"

#include <uriparser/Uri.h>

#include <strings.h>

namespace tz {
namespace {

std::string_view text(const UriTextRangeA& range) {
    if (range.first == nullptr || range.afterLast == nullptr) return {};
    return {range.first, static_cast<std::size_t>(range.afterLast - range.first)};
}

struct ParsedUri {
    UriUriA uri{};
    bool ok = false;
    explicit ParsedUri(std::string_view s) {
        const char* error = nullptr;
        ok = uriParseSingleUriExA(&uri, s.data(), s.data() + s.size(), &error) == URI_SUCCESS;
    }
    ~ParsedUri() {
        if (ok) uriFreeUriMembersA(&uri);
    }
    ParsedUri(const ParsedUri&) = delete;
    ParsedUri& operator=(const ParsedUri&) = delete;
};

}  // namespace

std::optional<std::string> file_url_path(std::string_view url) {
    ParsedUri parsed(url);
    if (!parsed.ok) return std::nullopt;
    const UriUriA& uri = parsed.uri;
    const std::string_view scheme = text(uri.scheme);
    if (scheme.size() != 4 || ::strncasecmp(scheme.data(), "file", 4) != 0) return std::nullopt;
    const std::string_view host = text(uri.hostText);
    const bool has_authority = uri.hostText.first != nullptr;
    if (!host.empty() && host != "localhost") return std::nullopt;
    if (!has_authority && !uri.absolutePath) return std::nullopt;  // "file:relative"

    std::string path;
    for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
        path += '/';
        path += text(segment->text);
    }
    if (path.size() > 1 && path.back() == '/') path.pop_back();
    if (path.empty()) return std::nullopt;

    // Percent-decode in place; '+' stays '+', line breaks stay as they are.
    const char* end = uriUnescapeInPlaceExA(path.data(), URI_FALSE, URI_BR_DONT_TOUCH);
    path.resize(static_cast<std::size_t>(end - path.data()));
    if (path.find('\0') != std::string::npos) return std::nullopt;
    return path;
}

}  // namespace tz
