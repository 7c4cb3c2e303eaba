#include "host/disk/sector_map.h"

#include <gtest/gtest.h>

namespace kelm::host {
namespace {

TEST(SectorMap, TellsTheFirstSectorThatWasTaken) {
    SectorMap map(0, 1000);
    EXPECT_EQ(-1, map.take(100, 128));
    EXPECT_EQ(-1, map.take(228, 1));
    EXPECT_EQ(100, map.take(0, 1000));
    EXPECT_EQ(0, map.take(0, 1));
}

TEST(SectorMap, KnowsEverySectorAtTheEdgesOfItsWords) {
    for (__int64 const first : {0, 1, 62, 63, 64, 65, 127, 128}) {
        for (__int64 const count : {1, 2, 63, 64, 65, 128}) {
            SectorMap map(0, 512);
            EXPECT_EQ(-1, map.take(first, count));
            if (first > 0) {
                EXPECT_EQ(-1, map.take(first - 1, 1));
            }
            EXPECT_EQ(-1, map.take(first + count, 1));
            EXPECT_EQ(first, map.take(first, 1));
            EXPECT_EQ(first + count - 1, map.take(first + count - 1, 1));
        }
    }
}

TEST(SectorMap, LooksAtNothingOutsideItsStretch) {
    SectorMap map(1000, 100);
    EXPECT_EQ(-1, map.take(0, 1000));
    EXPECT_EQ(-1, map.take(1100, 5000000000));
    EXPECT_EQ(-1, map.take(990, 11));
    EXPECT_EQ(1000, map.take(500, 5000000000));
    EXPECT_EQ(1099, map.take(1099, 2));
    EXPECT_EQ(-1, map.take(1050, 0));
}

TEST(SectorMap, FindsWhatIsTakenAndTakesNothing) {
    for (__int64 const taken : {1000, 1001, 1063, 1064, 1099}) {
        SectorMap map(1000, 100);
        EXPECT_EQ(-1, map.findTaken(0, 5000));
        map.take(taken, 1);
        EXPECT_EQ(taken, map.findTaken(0, 5000));
        EXPECT_EQ(taken, map.findTaken(taken, taken + 1));
        EXPECT_EQ(-1, map.findTaken(0, taken));
        EXPECT_EQ(-1, map.findTaken(taken + 1, 5000));
    }
}

TEST(SectorMap, MayBeEmpty) {
    SectorMap map(0, 0);
    EXPECT_EQ(-1, map.take(0, 100));
    EXPECT_EQ(-1, map.findTaken(0, 100));
}

} // namespace
} // namespace kelm::host
