// Requests made by the builders go through the cutters and must give back
// their fields; requests no builder makes show what cutting does with
// missing, misplaced and repeated markers.
#include <gtest/gtest.h>
#include <pugixml.hpp>

#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "bus_names.h"
#include "file_url.h"
#include "methods.h"
#include "request.h"

namespace tz::protocol {
namespace {

using Fields = std::vector<std::optional<std::string>>;
constexpr std::nullopt_t kNone = std::nullopt;

std::optional<std::string> text(std::optional<std::string_view> field) {
    return field ? std::optional<std::string>(*field) : std::nullopt;
}

Fields swap(std::string_view request) {
    const Swap cut = cut_swap(request);
    return {std::to_string(cut.type), text(cut.current), text(cut.previous)};
}

Fields write(std::string_view request) {
    const Write cut = cut_write(request);
    return {std::string(cut.url), std::string(cut.text)};
}

Fields walk(std::string_view request) {
    const WalkNames names = cut_walk_names(request);
    Fields fields{text(names.model), text(names.user)};
    for (const std::string_view argument : cut_walk_arguments(request)) fields.emplace_back(argument);
    return fields;
}

// A plain request: a path, or a path sent as a file URL.
Fields path(std::string_view request) { return {tz::file_url_path(request)}; }

struct Case {
    std::string what;
    std::string request;
    Fields (*cut)(std::string_view request);
    Fields fields;                      // when it cuts
    std::string_view range_error = {};  // else the marker the exception names
};

TEST(Protocol, RequestsCutIntoTheirFields) {
    const Case cases[] = {
        // Built requests give back what they were built from.
        {"swap", swap_request(2, "/p/cur", "/p/prev"), swap, {"2", "/p/cur", "/p/prev"}},
        {"swap of no paths", swap_request(-7, "", ""), swap, {"-7", kNone, kNone}},
        {"swap: only upper-case NULL is no value", swap_request(INT32_MIN, "NULL", "null"), swap,
         {"-2147483648", kNone, "null"}},
        {"swap: earlier markers in a later value are kept",
         swap_request(1, "/a", "/b:ARG_cFooCurrentString:ARG_iSwapType"), swap,
         {"1", "/a", "/b:ARG_cFooCurrentString:ARG_iSwapType"}},
        {"swap: a later marker in an earlier value", swap_request(1, "/a:ARG_cFooPrevString", "/b"), swap, {},
         kSwapCurrent},
        {"write", write_request("file:///t/x.plist", "<plist/>"), write, {"file:///t/x.plist", "<plist/>"}},
        {"write of nothing", write_request("", ""), write, {"", ""}},
        {"write: the marker in the text is kept", write_request("u", "<a>:AddURL:END</a>"), write,
         {"u", "<a>:AddURL:END</a>"}},
        {"walk", walk_request("T48Q", "alice", {"snmpwalk", "-v", "1"}), walk,
         {"T48Q", "alice", "snmpwalk", "-v", "1"}},
        {"walk of empty names and arguments", walk_request("", "", {"", ""}), walk, {"", "", "", ""}},
        {"walk without arguments", walk_request("M", "u", {}), walk, {"M", "u"}},
        {"walk: the model marker in the user is kept", walk_request("M", "u:ModelName:END", {"a"}), walk,
         {"M", "u:ModelName:END", "a"}},
        {"walk: the argument marker splits an argument", walk_request("M", "u", {"a:arg:b"}), walk,
         {"M", "u", "a", "b"}},
        {"walk: the user marker in the model", walk_request("M:USErName:END", "u", {}), walk, {}, kModelName},
        {"path as a file URL", file_url("/t/a b:\xC3\xA4%#?.plist"), path, {"/t/a b:\xC3\xA4%#?.plist"}},
        // Requests no builder makes.
        {"swap: type alone, its leading number", " \t\n+17abc:ARG_iSwapType/x", swap, {"17", kNone, kNone}},
        {"swap: a sign alone", "- 3:ARG_iSwapType", swap, {"0", kNone, kNone}},
        {"swap: the type saturates", "2147483648:ARG_iSwapType", swap, {"2147483647", kNone, kNone}},
        {"swap: and below", "-99999999999999999999:ARG_iSwapType", swap, {"-2147483648", kNone, kNone}},
        {"swap: empty, not missing", "x:ARG_iSwapType:ARG_cFooCurrentString:ARG_cFooPrevString", swap,
         {"0", "", ""}},
        {"swap: no type marker", "/a:ARG_cFooCurrentString/b:ARG_cFooPrevString", swap, {}, kSwapType},
        {"swap: markers swapped", "/a:ARG_cFooCurrentString1:ARG_iSwapType", swap, {}, kSwapType},
        {"write: no marker", "file:///t/x.plist<plist/>", write, {}, kAddUrl},
        {"walk: names out of order", "u:USErName:ENDM:ModelName:END", walk, {}, kModelName},
        {"walk: no user marker", "M:ModelName:ENDu", walk, {}, kUserName},
        {"walk: the piece after the last argument marker", "M:ModelName:ENDu:USErName:ENDa:arg:b", walk,
         {"M", "u", "a"}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what + ": " + c.request);
        try {
            EXPECT_EQ(c.cut(c.request), c.fields);
            EXPECT_TRUE(c.range_error.empty()) << "no range exception";
        } catch (const std::out_of_range& e) {
            EXPECT_FALSE(c.range_error.empty()) << e.what();
            EXPECT_NE(std::string_view(e.what()).find(c.range_error), std::string_view::npos) << e.what();
        }
    }
    EXPECT_FALSE(cut_walk_names("M:ModelName:END").user) << "only the arguments need the user marker";
}

TEST(Protocol, ThePublishedInterfaceListsTheTablesMethodsInOrder) {
    pugi::xml_document doc;
    ASSERT_TRUE(doc.load_file(TZ_INTERFACE_XML));
    const std::string query = "//interface[@name='" + std::string(tz::bus::kInterface) + "']/method";
    std::vector<std::string> published, table;
    for (const pugi::xpath_node& method : doc.select_nodes(query.c_str()))
        published.emplace_back(method.node().attribute("name").value());
    for (const Method& method : kMethods) table.emplace_back(method.name);
    EXPECT_EQ(published, table);
}

}  // namespace
}  // namespace tz::protocol
