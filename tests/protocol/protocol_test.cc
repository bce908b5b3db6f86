// Built requests cut back into their fields, odd markers in hand-made ones, and the method table against the XML.
#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <optional>
#include <stdexcept>
#include <vector>

#include "bus_names.h"
#include "file_url.h"
#include "methods.h"
#include "request.h"

namespace tz::protocol {
namespace {

using Fields = std::vector<std::optional<std::string>>;
constexpr std::nullopt_t kNone = std::nullopt;

std::optional<std::string> str(std::optional<std::string_view> f) { return f ? std::optional<std::string>(*f) : kNone; }
Fields swap(std::string_view r) { const auto [t, c, p] = cut_swap(r); return {std::to_string(t), str(c), str(p)}; }
Fields write(std::string_view r) { return {std::string(cut_write(r).url), std::string(cut_write(r).text)}; }
Fields walk(std::string_view r) {
    Fields fields{str(cut_walk_names(r).model), str(cut_walk_names(r).user)};
    for (const std::string_view argument : cut_walk_arguments(r)) fields.emplace_back(argument);
    return fields;
}

TEST(Protocol, RequestsCutIntoTheirFields) {
    const struct {  // the fields when it cuts, else the marker its range exception names
        std::string request; Fields (*cut)(std::string_view); Fields fields; std::string_view range_error = {};
    } cases[] = {
        {swap_request(INT32_MIN, "NULL", ""), swap, {"-2147483648", kNone, kNone}},
        {swap_request(1, "null", "/b:ARG_cFooCurrentString:ARG_iSwapType"), swap,
         {"1", "null", "/b:ARG_cFooCurrentString:ARG_iSwapType"}},
        {write_request("u", "<a>:AddURL:END</a>"), write, {"u", "<a>:AddURL:END</a>"}},
        {walk_request("", "", {"", ""}), walk, {"", "", "", ""}},
        {walk_request("M", "u:ModelName:END", {}), walk, {"M", "u:ModelName:END"}},
        {walk_request("M", "u", {"a:arg:b"}), walk, {"M", "u", "a", "b"}},
        {walk_request("M:USErName:END", "u", {}), walk, {}, kModelName},
        // Requests no builder makes.
        {" \t\r+17abc:ARG_iSwapType/x", swap, {"17", kNone, kNone}},
        {"- 3:ARG_iSwapType:ARG_cFooCurrentString:ARG_cFooPrevString", swap, {"0", "", ""}},
        {"2147483648:ARG_iSwapType", swap, {"2147483647", kNone, kNone}},
        {"-99999999999999999999:ARG_iSwapType", swap, {"-2147483648", kNone, kNone}},
        {"/a:ARG_cFooCurrentString/b:ARG_cFooPrevString", swap, {}, kSwapType},
        {"M:ModelName:ENDu", walk, {}, kUserName},
        {"M:ModelName:ENDu:USErName:ENDa:arg:b", walk, {"M", "u", "a"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.request);
        std::string thrown;
        try { EXPECT_EQ(c.cut(c.request), c.fields); } catch (const std::out_of_range& e) { thrown = e.what(); }
        EXPECT_EQ(thrown.empty(), c.range_error.empty()) << thrown;
        EXPECT_NE(thrown.find(c.range_error), std::string::npos) << thrown;
    }
    EXPECT_FALSE(cut_walk_names("M:ModelName:END").user) << "only the arguments need the user marker";
    EXPECT_EQ(cut_walk_arguments("M:ModelName:ENDu:USErName:ENDa:arg:b:arg:c:arg:", 2).size(), 2u);
    EXPECT_EQ(tz::file_url_path(file_url("/t/a b:\xC3\xA4%#?.plist")), "/t/a b:\xC3\xA4%#?.plist");
    for (const char* not_a_file_url : {"file:///with space", "/bare", "file://otherhost/c", "file:relative",
                                       "file:///caf\xc3\xa9", "file:///nul%00byte", "files:///x"})
        EXPECT_FALSE(tz::file_url_path(not_a_file_url)) << not_a_file_url;
    // Each end of the unreserved ranges, and the bytes just outside them.
    EXPECT_EQ(file_url("/azAZ09-._~`{@[:/\xff"), "file:///azAZ09-._~%60%7B%40%5B%3A/%FF");
}

TEST(Protocol, ThePublishedInterfaceListsTheTablesMethodsInOrder) {
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(TZ_INTERFACE_XML));
    const std::string query = "//interface[@name='" + std::string(tz::bus::kInterface) + "']/method";
    std::vector<std::string> published, table;
    for (const auto& n : doc.select_nodes(query.c_str())) published.emplace_back(n.node().attribute("name").value());
    for (const Method& method : kMethods) table.emplace_back(method.name);
    EXPECT_EQ(published, table);
}

}  // namespace
}  // namespace tz::protocol
