#include "host/backups/retention_policy.h"

#include <random>

#include <gmock/gmock.h>

#include "host/system/time_text.h"

namespace test_support {
namespace retention_policy_test {
namespace {

using kelm::host::RetentionItem;
using kelm::host::RetentionPolicy;
using kelm::host::RetentionReasons;
using kelm::host::RetentionRules;
using testing::ElementsAre;

std::vector<RetentionItem> itemsAt(std::vector<std::string> const& times) {
    std::vector<RetentionItem> items;
    for (std::string const& time : times)
        items.push_back({time, "/dev/sdb", "server"});
    return items;
}

TEST(RetentionPolicy, KeepsTheNewest) {
    EXPECT_THAT(RetentionPolicy({.last = 2})
                    .judge(itemsAt({"2031-05-04T02:00:00Z", "2031-05-06T02:00:00Z",
                                    "2031-05-05T02:00:00Z", "2031-05-03T02:00:00Z"})),
                ElementsAre(RetentionReasons{}, RetentionReasons{"last 1"},
                            RetentionReasons{"last 2"}, RetentionReasons{}));
}

TEST(RetentionPolicy, KeepsTheNewestOfEachPeriod) {
    struct Case {
        RetentionRules rules;
        std::vector<std::string> reasons;
    };
    std::vector<std::string> const times{
        "2029-12-31T23:59:59Z", // a Monday
        "2030-01-01T00:00:00Z", // a Tuesday
        "2030-01-06T23:59:59Z", // a Sunday
        "2030-01-07T00:00:00Z", // a Monday
        "2030-01-31T10:00:00Z", "2030-02-01T10:00:00Z",
        "2030-02-01T10:59:59Z", "2030-02-01T11:00:00Z",
    };
    std::vector<Case> const cases{
        {{.hourly = 3}, {"", "", "", "", "hour 3", "", "hour 2", "hour 1"}},
        {{.daily = 3}, {"", "", "", "day 3", "day 2", "", "", "day 1"}},
        {{.weekly = 4}, {"", "", "week 3", "week 2", "", "", "", "week 1"}},
        {{.monthly = 2}, {"", "", "", "", "month 2", "", "", "month 1"}},
        {{.monthly = 9}, {"month 3", "", "", "", "month 2", "", "", "month 1"}},
        {{.yearly = 9}, {"year 2", "", "", "", "", "", "", "year 1"}},
        {{}, {"", "", "", "", "", "", "", ""}},
        {{.daily = -1}, {"", "", "", "", "", "", "", ""}},
    };
    for (Case const& each : cases) {
        std::vector<std::string> reasons;
        for (RetentionReasons const& found : RetentionPolicy(each.rules).judge(itemsAt(times)))
            reasons.push_back(found.empty() ? "" : found.front());
        EXPECT_EQ(each.reasons, reasons);
    }
}

TEST(RetentionPolicy, NamesEveryReason) {
    EXPECT_THAT(
        RetentionPolicy({.last = 1, .daily = 1, .yearly = 2})
            .judge(itemsAt({"2030-06-01T00:00:00Z", "2031-06-01T00:00:00Z"})),
        ElementsAre(RetentionReasons{"year 2"}, RetentionReasons{"last 1", "day 1", "year 1"}));
}

TEST(RetentionPolicy, JudgesEachSourceByItself) {
    std::vector<RetentionItem> const items{{"2031-05-04T02:00:00Z", "/dev/sdb", "one"},
                                           {"2031-05-05T02:00:00Z", "/dev/sdb", "two"},
                                           {"2031-05-06T02:00:00Z", "/dev/sdc", "two"},
                                           {"2031-05-03T02:00:00Z", "/dev/sdc", "two"}};
    EXPECT_THAT(RetentionPolicy({.last = 1}).judge(items),
                ElementsAre(RetentionReasons{"last 1"}, RetentionReasons{"last 1"},
                            RetentionReasons{"last 1"}, RetentionReasons{}));
}

TEST(RetentionPolicy, KeepsWhatHasNoTime) {
    EXPECT_THAT(
        RetentionPolicy({.last = 1}).judge(itemsAt({"", "yesterday", "2031-05-04T02:00:00Z"})),
        ElementsAre(RetentionReasons{"no time recorded"}, RetentionReasons{"no time recorded"},
                    RetentionReasons{"last 1"}));
}

TEST(RetentionPolicy, OfOneTimeKeepsTheLaterInTheList) {
    EXPECT_THAT(RetentionPolicy({.last = 1})
                    .judge(itemsAt({"2031-05-04T02:00:00Z", "2031-05-04T02:00:00Z"})),
                ElementsAre(RetentionReasons{}, RetentionReasons{"last 1"}));
}

TEST(RetentionPolicy, KeepsTheSameOnesOnceSomeAreGone) {
    constexpr unsigned int kSeed = 20261122;
    SCOPED_TRACE(kSeed);
    std::mt19937 random(kSeed);
    for (int round = 0; round < 200; ++round) {
        std::vector<RetentionItem> items;
        for (int count = 1 + static_cast<int>(random() % 60); count > 0; --count) {
            auto const time = static_cast<std::time_t>(1900000000 + random() % 60000000);
            items.push_back({kelm::host::formatTime(time), "disk", "host"});
        }
        auto const draw = [&] { return static_cast<int>(random() % 4); };
        RetentionPolicy const policy({draw(), draw(), draw(), draw(), draw(), draw()});
        std::vector<RetentionReasons> const reasons = policy.judge(items);
        std::vector<RetentionItem> left;
        std::vector<RetentionReasons> leftReasons;
        for (std::size_t i = 0; i < items.size(); ++i) {
            if (reasons[i].empty() && random() % 2 == 0)
                continue;
            left.push_back(items[i]);
            leftReasons.push_back(reasons[i]);
        }
        EXPECT_EQ(leftReasons, policy.judge(left)) << round;
    }
}

} // namespace
} // namespace retention_policy_test
} // namespace test_support
