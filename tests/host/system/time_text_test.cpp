#include "host/system/time_text.h"

#include <gtest/gtest.h>

namespace {

using kelm::host::formatTime;
using kelm::host::parseTime;

TEST(TimeText, IsInUTCToTheSecond) {
    EXPECT_EQ("1970-01-01T00:00:00Z", formatTime(0));
    EXPECT_EQ("2031-05-04T02:00:00Z", formatTime(1935626400));
    EXPECT_EQ("1969-12-31T23:59:59Z", formatTime(-1));
}

TEST(TimeText, IsReadBack) {
    for (std::time_t const time : {0LL, 1935626400LL, -1LL, 951782400LL, 4102444799LL})
        EXPECT_EQ(std::optional(time), parseTime(formatTime(time)));
}

TEST(TimeText, OfAnotherFormIsNoTime) {
    for (char const* const text :
         {"", "today", "2031-05-04", "2031-05-04T02:00:00", "2031-05-04T02:00:00+00:00",
          "2031-05-04T02:00:00Z ", " 2031-05-04T02:00:00Z", "2031-5-4T2:00:00Z",
          "2031-02-30T02:00:00Z", "2031-05-04T24:00:00Z", "2031-05-04T02:00:60Z"})
        EXPECT_EQ(std::nullopt, parseTime(text)) << text;
}

} // namespace
