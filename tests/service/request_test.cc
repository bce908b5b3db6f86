#include "request.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace tz::request {
namespace {

// The exception must name the marker whose position could not be used.
void expect_range_error(auto cut, const std::string& marker) {
    try {
        cut();
        ADD_FAILURE() << "no range exception, expected one naming " << marker;
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find(marker), std::string::npos) << e.what();
    }
}

TEST(Request, IntValueReadsALeadingNumberAndClamps) {
    EXPECT_EQ(int_value("  \t\n-17abc"), -17);
    EXPECT_EQ(int_value("+5"), 5);
    EXPECT_EQ(int_value("- 3"), 0);
    EXPECT_EQ(int_value("NULL"), 0);
    EXPECT_EQ(int_value("2147483648"), INT32_MAX);
    EXPECT_EQ(int_value("-99999999999999999999999"), INT32_MIN);
}

TEST(Request, SwapCutsThreeFieldsAndTakesNullForNoValue) {
    const Swap swap = cut_swap(
        "2:ARG_iSwapType/p/cur.plist:ARG_cFooCurrentString/p/prev.plist"
        ":ARG_cFooPrevStringignored");
    EXPECT_EQ(swap.type, 2);
    EXPECT_EQ(swap.current, "/p/cur.plist");
    EXPECT_EQ(swap.previous, "/p/prev.plist");

    const Swap nulls = cut_swap("NULL:ARG_iSwapTypeNULL:ARG_cFooCurrentStringNULL:ARG_cFooPrevString");
    EXPECT_EQ(nulls.type, 0);
    EXPECT_FALSE(nulls.current);
    EXPECT_FALSE(nulls.previous);
    const Swap lower = cut_swap("1:ARG_iSwapTypenull:ARG_cFooCurrentString:ARG_cFooPrevString");
    EXPECT_EQ(lower.current, "null");  // only the upper-case word means no value
    EXPECT_EQ(lower.previous, "");     // empty, not missing
    const Swap first_only = cut_swap("1:ARG_iSwapType/x");
    EXPECT_EQ(first_only.type, 1);
    EXPECT_FALSE(first_only.current);
    EXPECT_FALSE(cut_swap("no markers at all").previous);
}

TEST(Request, MarkersOutOfPlaceAreRangeErrors) {
    expect_range_error([] { cut_swap("/a:ARG_cFooCurrentString/b:ARG_cFooPrevString"); }, ":ARG_iSwapType");
    // Swapped markers: the current field's length would be negative.
    expect_range_error([] { cut_swap("/a:ARG_cFooCurrentString1:ARG_iSwapType"); }, ":ARG_iSwapType");
    // A later marker inside an earlier value is found too early.
    expect_range_error(
        [] { cut_swap("1:ARG_iSwapType/a:ARG_cFooPrevString:ARG_cFooCurrentString/b:ARG_cFooPrevString"); },
        ":ARG_cFooCurrentString");
    expect_range_error([] { cut_write("file:///t/x.plist<plist/>"); }, ":AddURL:END");
    expect_range_error([] { cut_walk_names("alice:USErName:ENDModelX:ModelName:END"); }, ":ModelName:END");
    expect_range_error([] { cut_walk_arguments("ModelX:ModelName:ENDalice"); }, ":USErName:END");
    EXPECT_FALSE(cut_walk_names("ModelX:ModelName:END").user);  // only the arguments need it
}

TEST(Request, MarkerTextInsideLaterValuesIsKept) {
    const Swap own = cut_swap(
        "1:ARG_iSwapType/a:ARG_cFooCurrentString/b:ARG_cFooCurrentString"
        "/c:ARG_cFooPrevString");
    EXPECT_EQ(own.current, "/a");
    EXPECT_EQ(own.previous, "/b:ARG_cFooCurrentString/c");
    const Write write = cut_write("file:///t/x.plist:AddURL:END<plist>:AddURL:END</plist>");
    EXPECT_EQ(write.url, "file:///t/x.plist");
    EXPECT_EQ(write.text, "<plist>:AddURL:END</plist>");
}

TEST(Request, WalkArgumentsEndWithTheirMarker) {
    using Args = std::vector<std::string_view>;
    const std::string request = "ModelX:ModelName:ENDalice:USErName:ENDsnmpwalk:arg:-v:arg:1:arg:";
    const WalkNames names = cut_walk_names(request);
    EXPECT_EQ(names.model, "ModelX");
    EXPECT_EQ(names.user, "alice");
    EXPECT_EQ(cut_walk_arguments(request), (Args{"snmpwalk", "-v", "1"}));
    EXPECT_EQ(cut_walk_arguments(request, 2), (Args{"snmpwalk", "-v"}));
    const std::string lost = "M:ModelName:ENDu:USErName:ENDa:arg:b:arg:c",
                      empties = "M:ModelName:ENDu:USErName:END:arg::arg:",
                      none = "M:ModelName:ENDu:USErName:ENDsnmpwalk";
    EXPECT_EQ(cut_walk_arguments(lost), (Args{"a", "b"}));  // "c" has no marker after it
    EXPECT_EQ(cut_walk_arguments(empties), (Args{"", ""}));
    EXPECT_TRUE(cut_walk_arguments(none).empty());
}

}  // namespace
}  // namespace tz::request
