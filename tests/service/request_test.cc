#include "request.h"

#include <gtest/gtest.h>

#include <climits>
#include <stdexcept>
#include <string>

namespace tz::request {
namespace {

// The exception must name the marker whose position could not be used.
void expect_range_error(auto cut, const std::string& marker) {
    try {
        cut();
        ADD_FAILURE() << "no range exception";
    } catch (const std::out_of_range& e) {
        EXPECT_NE(std::string(e.what()).find(marker), std::string::npos) << e.what();
    }
}

TEST(RequestIntValue, ReadsLikeIntValue) {
    EXPECT_EQ(int_value("2"), 2);
    EXPECT_EQ(int_value("  \t\n-17abc"), -17);
    EXPECT_EQ(int_value("+5"), 5);
    EXPECT_EQ(int_value("abc"), 0);
    EXPECT_EQ(int_value(""), 0);
    EXPECT_EQ(int_value("- 3"), 0);
    EXPECT_EQ(int_value("2.9"), 2);
    EXPECT_EQ(int_value("2147483647"), INT32_MAX);
    EXPECT_EQ(int_value("2147483648"), INT32_MAX);
    EXPECT_EQ(int_value("99999999999999999999999"), INT32_MAX);
    EXPECT_EQ(int_value("-2147483648"), INT32_MIN);
    EXPECT_EQ(int_value("-99999999999999999999999"), INT32_MIN);
}

TEST(RequestSwap, CutsThreeFields) {
    const Swap swap = cut_swap("2:ARG_iSwapType/p/cur.plist:ARG_cFooCurrentString/p/prev.plist"
                               ":ARG_cFooPrevStringignored");
    EXPECT_EQ(swap.type, 2);
    EXPECT_EQ(swap.current, "/p/cur.plist");
    EXPECT_EQ(swap.previous, "/p/prev.plist");
}

TEST(RequestSwap, NullWordAndMissingMarkersGiveNoValue) {
    const Swap nulls = cut_swap("NULL:ARG_iSwapTypeNULL:ARG_cFooCurrentStringNULL:ARG_cFooPrevString");
    EXPECT_EQ(nulls.type, 0);
    EXPECT_FALSE(nulls.current);
    EXPECT_FALSE(nulls.previous);

    const Swap lower = cut_swap("1:ARG_iSwapTypenull:ARG_cFooCurrentString:ARG_cFooPrevString");
    EXPECT_EQ(lower.current, "null");
    EXPECT_EQ(lower.previous, "");  // empty, not missing

    const Swap none = cut_swap("no markers at all");
    EXPECT_EQ(none.type, 0);
    EXPECT_FALSE(none.current);
    EXPECT_FALSE(none.previous);

    const Swap first_only = cut_swap("1:ARG_iSwapType/x");
    EXPECT_EQ(first_only.type, 1);
    EXPECT_FALSE(first_only.current);
}

TEST(RequestSwap, MissingOrMisplacedEarlierMarkerIsRangeError) {
    expect_range_error([] { cut_swap("/a:ARG_cFooCurrentString/b:ARG_cFooPrevString"); },
                       ":ARG_iSwapType");
    expect_range_error([] { cut_swap("1:ARG_iSwapType/b:ARG_cFooPrevString"); },
                       ":ARG_cFooCurrentString");
    // Markers swapped: the current field's length would be negative.
    expect_range_error([] { cut_swap("/a:ARG_cFooCurrentString1:ARG_iSwapType"); },
                       ":ARG_iSwapType");
}

TEST(RequestSwap, MarkerTextInsideValues) {
    // Its own marker inside a value ends the value there; the rest spills over.
    const Swap own = cut_swap("1:ARG_iSwapType/a:ARG_cFooCurrentString/b:ARG_cFooCurrentString"
                              "/c:ARG_cFooPrevString");
    EXPECT_EQ(own.current, "/a");
    EXPECT_EQ(own.previous, "/b:ARG_cFooCurrentString/c");
    // An earlier marker inside a later value has no effect.
    const Swap earlier = cut_swap("1:ARG_iSwapType/a:ARG_cFooCurrentString/b:ARG_iSwapType"
                                  ":ARG_cFooPrevString");
    EXPECT_EQ(earlier.previous, "/b:ARG_iSwapType");
    // A later marker inside an earlier value is found too early.
    expect_range_error(
        [] {
            cut_swap("1:ARG_iSwapType/a:ARG_cFooPrevString:ARG_cFooCurrentString/b"
                     ":ARG_cFooPrevString");
        },
        ":ARG_cFooCurrentString");
}

TEST(RequestWrite, UrlBeforeMarkerTextAfter) {
    const Write write = cut_write("file:///t/x.plist:AddURL:END<plist>:AddURL:END</plist>");
    EXPECT_EQ(write.url, "file:///t/x.plist");
    EXPECT_EQ(write.text, "<plist>:AddURL:END</plist>");
    EXPECT_EQ(cut_write(":AddURL:END").text, "");
    expect_range_error([] { cut_write("file:///t/x.plist<plist/>"); }, ":AddURL:END");
}

TEST(RequestWalk, NamesAndArguments) {
    const std::string request =
        "ModelX:ModelName:ENDalice:USErName:ENDsnmpwalk:arg:-v:arg:1:arg:-c:arg:public:arg:"
        "192.0.2.10:arg:";
    const WalkNames names = cut_walk_names(request);
    EXPECT_EQ(names.model, "ModelX");
    EXPECT_EQ(names.user, "alice");
    const auto args = cut_walk_arguments(request);
    ASSERT_EQ(args.size(), 6u);
    EXPECT_EQ(args[0], "snmpwalk");
    EXPECT_EQ(args[5], "192.0.2.10");
}

TEST(RequestWalk, ArgumentListEdges) {
    EXPECT_TRUE(cut_walk_arguments("M:ModelName:ENDu:USErName:END").empty());
    EXPECT_TRUE(cut_walk_arguments("M:ModelName:ENDu:USErName:ENDsnmpwalk").empty());
    const auto lost = cut_walk_arguments("M:ModelName:ENDu:USErName:ENDa:arg:b:arg:c");
    ASSERT_EQ(lost.size(), 2u);  // "c" has no ":arg:" after it
    const auto empties = cut_walk_arguments("M:ModelName:ENDu:USErName:END:arg::arg:");
    ASSERT_EQ(empties.size(), 2u);
    EXPECT_EQ(empties[0], "");
}

TEST(RequestWalk, RequiredMarkers) {
    const WalkNames empty = cut_walk_names(":ModelName:END:USErName:END");
    EXPECT_EQ(empty.model, "");
    EXPECT_EQ(empty.user, "");
    expect_range_error([] { cut_walk_names("alice:USErName:END"); }, ":ModelName:END");
    expect_range_error([] { cut_walk_arguments("ModelX:ModelName:ENDalice"); }, ":USErName:END");
    expect_range_error([] { cut_walk_names("alice:USErName:ENDModelX:ModelName:END"); },
                       ":ModelName:END");
    // Without the user marker the names cut fine; the argument list then fails.
    EXPECT_FALSE(cut_walk_names("ModelX:ModelName:END").user);
}

}  // namespace
}  // namespace tz::request
