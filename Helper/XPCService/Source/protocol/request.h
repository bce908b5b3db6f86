// Request strings: the markers that pack several values into one request,
// the builders a client uses and the cutters the service uses.
//
// Building writes each value as it stands, followed by its marker; nothing
// is escaped, so a value that holds a marker's text is cut short when the
// request is cut.
//
// Cutting: each marker is searched for on its own, over the whole request,
// from its start; the first occurrence counts. A field runs from the end of
// the marker before it to the start of its own marker. A field whose own
// marker is missing has no value (std::nullopt). A field whose own marker is
// present but whose start cannot be computed (the marker before it is
// missing) or whose length comes out negative (markers out of order) throws
// std::out_of_range naming the marker: the request then ends without a reply.
// The text after the last marker is always cut, so its marker is required.
//
// Both work on the UTF-8 bytes: every marker is ASCII. Cut fields are views
// into the request and live as long as it does.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tz::protocol {

inline constexpr std::string_view kSwapType = ":ARG_iSwapType";
inline constexpr std::string_view kSwapCurrent = ":ARG_cFooCurrentString";
inline constexpr std::string_view kSwapPrevious = ":ARG_cFooPrevString";
inline constexpr std::string_view kAddUrl = ":AddURL:END";
inline constexpr std::string_view kModelName = ":ModelName:END";
inline constexpr std::string_view kUserName = ":USErName:END";
inline constexpr std::string_view kArg = ":arg:";
// A swap field with no value.
inline constexpr std::string_view kNull = "NULL";

// ---- building -------------------------------------------------------------

// "<type>:ARG_iSwapType<current>:ARG_cFooCurrentString<previous>:ARG_cFooPrevString";
// an empty path is sent as "NULL" (no value).
std::string swap_request(int32_t type, std::string_view current, std::string_view previous);

// "<url>:AddURL:END<text>", for both writes.
std::string write_request(std::string_view url, std::string_view text);

// "<model>:ModelName:END<user>:USErName:END" and every argument followed by
// ":arg:". The first argument stands where a command line has the program's
// name ("snmpwalk").
std::string walk_request(std::string_view model, std::string_view user,
                         const std::vector<std::string>& arguments);

// The file URL of an absolute path, percent-escaping every byte outside the
// unreserved set and '/' ("/tmp/a b" gives "file:///tmp/a%20b").
std::string file_url(std::string_view absolute_path);

// ---- cutting --------------------------------------------------------------

// Reads a decimal integer as -[NSString intValue] does: leading white space
// skipped, an optional sign, digits up to the first other character; no digits
// give 0; values beyond 32 bits saturate at INT32_MIN / INT32_MAX.
int32_t int_value(std::string_view text);

struct Swap {
    int32_t type = 0;                          // 0 when missing or "NULL"
    std::optional<std::string_view> current;   // no path when missing or "NULL"
    std::optional<std::string_view> previous;
};
Swap cut_swap(std::string_view request);

struct Write {
    std::string_view url;   // before ":AddURL:END"
    std::string_view text;  // everything after it
};
Write cut_write(std::string_view request);

struct WalkNames {
    std::optional<std::string_view> model;  // before ":ModelName:END"
    std::optional<std::string_view> user;   // between the two name markers
};
WalkNames cut_walk_names(std::string_view request);

// The argument list after ":USErName:END", split at every ":arg:"; the piece
// after the last ":arg:" is dropped, so a list without ":arg:" is empty.
// Cutting stops after `at_most` pieces: a caller that refuses longer lists
// asks for one more than it takes, so a request of millions of markers costs
// no more than that.
std::vector<std::string_view> cut_walk_arguments(
    std::string_view request, std::size_t at_most = std::numeric_limits<std::size_t>::max());

}  // namespace tz::protocol
