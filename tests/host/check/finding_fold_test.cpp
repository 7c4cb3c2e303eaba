#include "host/check/finding_fold.h"

#include <gmock/gmock.h>

using kelm::host::FindingFold;
using testing::ElementsAre;

namespace {

class FindingFoldTest : public testing::Test {
protected:
    void addGrain(__int64 number, std::string const& what) {
        fold.addOfThing("grain", number, "grain " + std::to_string(number) + what);
    }

    std::vector<std::string> findings;
    FindingFold::Report report = [this](std::string const& text) { findings.push_back(text); };
    FindingFold fold{report};
};

TEST_F(FindingFoldTest, ASingleFindingStaysAsItIs) {
    addGrain(5, " is bad");
    fold.flush();
    EXPECT_THAT(findings, ElementsAre("grain 5 is bad"));
}

TEST_F(FindingFoldTest, NeighboursThatAreAlikeAreOne) {
    for (int number = 5; number < 10; ++number)
        addGrain(number, ": " + std::to_string(100 * number) + " sectors");
    fold.flush();
    EXPECT_THAT(findings, ElementsAre("grain 5: 500 sectors; the same of 4 more, up to grain 9"));
}

TEST_F(FindingFoldTest, WhatIsNotAlikeOrNoNeighbourStaysApartAndInOrder) {
    addGrain(5, " is bad");
    addGrain(6, " is worse");
    addGrain(7, " is bad");
    addGrain(9, " is bad");
    fold.add("the file is old");
    addGrain(10, " is bad");
    fold.flush();
    EXPECT_THAT(findings, ElementsAre("grain 5 is bad", "grain 6 is worse", "grain 7 is bad",
                                      "grain 9 is bad", "the file is old", "grain 10 is bad"));
}

TEST_F(FindingFoldTest, WhatHasACommonCauseIsOneAtTheEnd) {
    fold.addOfCause("end", "grain", 3, "grain 3 is outside");
    addGrain(4, " is bad");
    fold.addOfCause("end", "grain", 9, "grain 9 reaches there");
    fold.addOfCause("end", "grain", 700, "grain 700 is outside");
    fold.addOfCause("other end", "grain", 1, "grain 1 is outside");
    fold.flush();
    EXPECT_THAT(findings, ElementsAre("grain 4 is bad",
                                      "grain 3 is outside; the same of 2 more, up to grain 700",
                                      "grain 1 is outside"));
}

TEST_F(FindingFoldTest, ManyThatAreAlikeBecomeOneAfterTwenty) {
    for (int number = 0; number < 2000; number += 2)
        addGrain(number, " is bad");
    fold.flush();
    ASSERT_EQ(21U, findings.size());
    EXPECT_EQ("grain 0 is bad", findings.front());
    EXPECT_EQ("grain 38 is bad", findings[19]);
    EXPECT_EQ("grain 40 is bad; the same of 979 more, up to grain 1998", findings.back());
}

TEST_F(FindingFoldTest, FlushingTwiceReportsOnce) {
    addGrain(5, " is bad");
    fold.flush();
    fold.flush();
    EXPECT_EQ(1U, findings.size());
}

} // namespace
