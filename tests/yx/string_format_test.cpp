#include "yx/string_format.h"

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"

namespace {

using yx::CStringFormat;
using yx::String;

TEST(CStringFormat, FillsAPlaceWithZerosUpToItsWidth) {
    struct Case {
        char const* format;
        __int64 value;
        char const* text;
    };
    constexpr Case kCases[] = {
        {"%05d", 0, "00000"},
        {"%05d", 7, "00007"},
        {"%05d", 12345, "12345"},
        {"%05d", 123456, "123456"},
        {"%05d", -7, "-0007"},
        {"%05d", 9223372036854775807LL, "9223372036854775807"},
        {"%05d", -9223372036854775807LL - 1, "-9223372036854775808"},
        {"%5d", 7, "    7"},
        {"%5d", -7, "   -7"},
        {"%d", 7, "7"},
        {"%d", -7, "-7"},
        {"a%db", 1, "a1b"},
        {"%%%d", 1, "%1"},
        {"%d%%", 1, "1%"},
        {"100%% of %03d%%", 42, "100% of 042%"},
        {"%x%d", 1, "%x1"},
        {"%1000d%d", 1, "%1000d1"},
    };
    for (Case const& c : kCases) {
        String const text = CStringFormat(c.format) << c.value;
        EXPECT_EQ(c.text, text.toStdString()) << c.format;
    }
}

TEST(CStringFormat, FillsPlacesInOrder) {
    String const text = CStringFormat("%d-%03d-%d") << 1 << 2 << -3;
    EXPECT_EQ("1-002--3", text.toStdString());
}

TEST(CStringFormat, LeavesPlacesWithoutValuesAsTheyAre) {
    String const text = CStringFormat("%d %d") << 1;
    EXPECT_EQ("1 %d", text.toStdString());
    EXPECT_EQ("%d", String(CStringFormat("%d")).toStdString());
}

TEST(CStringFormat, RefusesAValueWithoutAPlace) {
    EXPECT_TRUE(test_support::throwsError("Too many values for the format: 'none'", {},
                                          [] { CStringFormat("none") << 1; }));
    EXPECT_TRUE(test_support::throwsError("Too many values for the format: '1'", {},
                                          [] { CStringFormat("%d") << 1 << 2; }));
    EXPECT_TRUE(test_support::throwsError("Too many values for the format: '%%d %'", {},
                                          [] { CStringFormat("%%d %") << 1; }));
}

} // namespace
