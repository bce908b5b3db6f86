#include "request.h"

#include <climits>
#include <stdexcept>
#include <string>

namespace tz::protocol {
namespace {

// Position of the first occurrence of `marker`, or npos.
std::size_t find(std::string_view request, std::string_view marker) {
    return request.find(marker);
}

[[noreturn]] void range_error(std::string_view marker, const char* what) {
    throw std::out_of_range("request: " + std::string(what) + " before \"" + std::string(marker) +
                            "\"");
}

// The first field: from the start of the request to its own marker.
std::optional<std::string_view> first_field(std::string_view request, std::string_view own) {
    const std::size_t end = find(request, own);
    if (end == std::string_view::npos) return std::nullopt;
    return request.substr(0, end);
}

// A field between the marker before it and its own marker. Cut only when its
// own marker was found; then a missing marker before it, or a marker before
// it that stands after its own, ends the request.
std::optional<std::string_view> middle_field(std::string_view request, std::string_view before,
                                             std::string_view own) {
    const std::size_t end = find(request, own);
    if (end == std::string_view::npos) return std::nullopt;
    const std::size_t begin_marker = find(request, before);
    if (begin_marker == std::string_view::npos) range_error(before, "missing marker");
    const std::size_t begin = begin_marker + before.size();
    if (begin > end) range_error(before, "marker out of order");
    return request.substr(begin, end - begin);
}

// The text after the last marker: always cut, so the marker is required.
std::string_view tail(std::string_view request, std::string_view last) {
    const std::size_t at = find(request, last);
    if (at == std::string_view::npos) range_error(last, "missing marker");
    return request.substr(at + last.size());
}

// The swap's "NULL" rule: a field that is exactly "NULL" has no value.
std::optional<std::string_view> unless_null(std::optional<std::string_view> field) {
    if (field && *field == kNull) return std::nullopt;
    return field;
}

bool is_space(char c) { return c == ' ' || (c >= '\t' && c <= '\r'); }

}  // namespace

std::string swap_request(int32_t type, std::string_view current, std::string_view previous) {
    std::string request = std::to_string(type);
    request += kSwapType;
    request += current.empty() ? kNull : current;
    request += kSwapCurrent;
    request += previous.empty() ? kNull : previous;
    request += kSwapPrevious;
    return request;
}

std::string write_request(std::string_view url, std::string_view text) {
    std::string request(url);
    request += kAddUrl;
    request += text;
    return request;
}

std::string walk_request(std::string_view model, std::string_view user,
                         const std::vector<std::string>& arguments) {
    std::string request(model);
    request += kModelName;
    request += user;
    request += kUserName;
    for (const std::string& argument : arguments) {
        request += argument;
        request += kArg;
    }
    return request;
}

std::string file_url(std::string_view absolute_path) {
    static constexpr char kHex[] = "0123456789ABCDEF";
    std::string url = "file://";
    for (const char c : absolute_path) {
        const auto byte = static_cast<unsigned char>(c);
        const bool plain = (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
                           (byte >= '0' && byte <= '9') || byte == '-' || byte == '.' ||
                           byte == '_' || byte == '~' || byte == '/';
        if (plain) {
            url += c;
        } else {
            url += '%';
            url += kHex[byte >> 4];
            url += kHex[byte & 0x0F];
        }
    }
    return url;
}

int32_t int_value(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size() && is_space(text[i])) ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) negative = text[i++] == '-';
    long long value = 0;
    const long long limit = negative ? -static_cast<long long>(INT32_MIN) : INT32_MAX;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value >= limit) {
            value = limit;  // saturated; further digits cannot lower it
        }
    }
    return static_cast<int32_t>(negative ? -value : value);
}

Swap cut_swap(std::string_view request) {
    const auto type = unless_null(first_field(request, kSwapType));
    const auto current = unless_null(middle_field(request, kSwapType, kSwapCurrent));
    const auto previous = unless_null(middle_field(request, kSwapCurrent, kSwapPrevious));
    return Swap{type ? int_value(*type) : 0, current, previous};
}

Write cut_write(std::string_view request) {
    const std::string_view text = tail(request, kAddUrl);
    return Write{request.substr(0, request.size() - text.size() - kAddUrl.size()), text};
}

WalkNames cut_walk_names(std::string_view request) {
    return WalkNames{first_field(request, kModelName),
                     middle_field(request, kModelName, kUserName)};
}

std::vector<std::string_view> cut_walk_arguments(std::string_view request, std::size_t at_most) {
    std::string_view rest = tail(request, kUserName);
    std::vector<std::string_view> arguments;
    for (std::size_t at = rest.find(kArg); at != std::string_view::npos && arguments.size() < at_most;
         at = rest.find(kArg)) {
        arguments.push_back(rest.substr(0, at));
        rest.remove_prefix(at + kArg.size());
    }
    return arguments;  // the piece after the last ":arg:" is dropped
}

}  // namespace tz::protocol
