#include "host/check/finding_fold.h"

#include <algorithm>

#include <gmock/gmock.h>

using kelm::host::CheckedThing;
using kelm::host::FindingFold;
using testing::ElementsAre;

namespace {

class FindingFoldTest : public testing::Test {
protected:
    void addGrain(__int64 number, std::string const& what) {
        CheckedThing const grain = grainAt(number);
        fold.addOfThing(grain, grain.getName() + what);
    }

    /// Grains of 100 bytes.
    static CheckedThing grainAt(__int64 number) {
        return {CheckedThing::Kind::Grain, number, {100 * number, 100 * number + 100}};
    }

    std::vector<std::string> findings;
    FindingFold::Report report = [this](std::string const& text) { findings.push_back(text); };
    FindingFold fold{report};
};

TEST_F(FindingFoldTest, ASingleFindingStaysAsItIs) {
    addGrain(5, " is bad");
    fold.flush();
    EXPECT_THAT(findings, ElementsAre("grain 5 is bad (bytes: 500-599)"));
}

TEST_F(FindingFoldTest, NeighboursThatAreAlikeAreOne) {
    for (int number = 5; number < 10; ++number)
        addGrain(number, ": " + std::to_string(100 * number) + " sectors");
    fold.flush();
    EXPECT_THAT(
        findings,
        ElementsAre("grain 5: 500 sectors; the same of 4 more, up to grain 9 (bytes: 500-999)"));
}

TEST_F(FindingFoldTest, WhatIsNotAlikeOrNoNeighbourStaysApartAndInOrder) {
    addGrain(5, " is bad");
    addGrain(6, " is worse");
    addGrain(7, " is bad");
    addGrain(9, " is bad");
    fold.add("the file is old");
    addGrain(10, " is bad");
    fold.flush();
    EXPECT_THAT(findings,
                ElementsAre("grain 5 is bad (bytes: 500-599)", "grain 6 is worse (bytes: 600-699)",
                            "grain 7 is bad (bytes: 700-799)", "grain 9 is bad (bytes: 900-999)",
                            "the file is old", "grain 10 is bad (bytes: 1000-1099)"));
}

TEST_F(FindingFoldTest, WhatHasACommonCauseIsOneAtTheEnd) {
    fold.addOfCause("end", grainAt(3), "grain 3 is outside");
    addGrain(4, " is bad");
    fold.addOfCause("end", grainAt(9), "grain 9 reaches there");
    fold.addOfCause("end", grainAt(700), "grain 700 is outside");
    fold.addOfCause("other end", grainAt(1), "grain 1 is outside");
    fold.flush();
    EXPECT_THAT(
        findings,
        ElementsAre("grain 4 is bad (bytes: 400-499)",
                    "grain 3 is outside; the same of 2 more, up to grain 700 (bytes: 300-70099)",
                    "grain 1 is outside (bytes: 100-199)"));
}

TEST_F(FindingFoldTest, ManyThatAreAlikeBecomeOneAfterTwenty) {
    for (int number = 0; number < 2000; number += 2)
        addGrain(number, " is bad");
    fold.flush();
    ASSERT_EQ(21U, findings.size());
    EXPECT_EQ("grain 0 is bad (bytes: 0-99)", findings.front());
    EXPECT_EQ("grain 38 is bad (bytes: 3800-3899)", findings[19]);
    EXPECT_EQ("grain 40 is bad; the same of 979 more, up to grain 1998 (bytes: 4000-199899)",
              findings.back());
}

TEST_F(FindingFoldTest, ATableIsFoldedWithTheBytesOfItsGrains) {
    for (int table = 0; table < 3; ++table) {
        CheckedThing const thing{CheckedThing::Kind::Table,
                                 table,
                                 {51200 * table, std::min(120000, 51200 * (table + 1))}};
        fold.addOfThing(thing, thing.getName() + " is lost");
    }
    fold.flush();
    EXPECT_THAT(findings,
                ElementsAre("grain table 0 is lost; the same of 2 more, up to grain table "
                            "2 (bytes: 0-119999)"));
}

TEST_F(FindingFoldTest, WhatLiesBehindTheEndHasNoBytes) {
    CheckedThing grain = grainAt(8);
    grain.bytes = {800, 800};
    addGrain(7, " is lost");
    fold.addOfThing(grain, "grain 8 is lost");
    fold.flush();
    addGrain(11, " is bad");
    fold.addOfThing({CheckedThing::Kind::Grain, 20, {}}, "grain 20 is bad");
    fold.flush();
    EXPECT_THAT(findings,
                ElementsAre("grain 7 is lost; the same of 1 more, up to grain 8 (bytes: 700-799)",
                            "grain 11 is bad (bytes: 1100-1199)", "grain 20 is bad"));
}

TEST_F(FindingFoldTest, AFindingAtOnceMayHaveBytesToo) {
    fold.add("grains 3 to 5 are nowhere", {300, 600});
    EXPECT_THAT(findings, ElementsAre("grains 3 to 5 are nowhere (bytes: 300-599)"));
}

TEST_F(FindingFoldTest, FlushingTwiceReportsOnce) {
    addGrain(5, " is bad");
    fold.flush();
    fold.flush();
    EXPECT_EQ(1U, findings.size());
}

} // namespace
