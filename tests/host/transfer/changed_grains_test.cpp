#include "host/transfer/changed_grains.h"

#include <algorithm>

#include <gtest/gtest.h>

using kelm::host::ChangedGrains;
using kelm::host::GrainSample;
using kelm::host::ImageRange;

namespace {

constexpr __int64 kChangedGrainBytes = 65536;

std::vector<__int64> grainsOf(ChangedGrains const& changes, __int64 endGrainIndex) {
    std::vector<__int64> grains;
    for (__int64 grain = changes.findNextToRead(0, endGrainIndex); grain >= 0;
         grain = changes.findNextToRead(grain + 1, endGrainIndex))
        grains.push_back(grain);
    return grains;
}

TEST(ChangedGrains, AreAllThatARangeTouches) {
    struct Case {
        std::vector<ImageRange> ranges;
        std::vector<__int64> grains;
    };
    Case const cases[] = {
        {{}, {}},
        {{{5, 5}}, {}},
        {{{0, 1}}, {0}},
        {{{65535, 65537}}, {0, 1}},
        {{{65536, 131072}}, {1}},
        {{{7 * 65536, 9 * 65536}, {0, 65536}}, {0, 7, 8}},
        {{{0, 3 * 65536}, {65536, 2 * 65536}, {3 * 65536, 3 * 65536 + 1}}, {0, 1, 2, 3}},
        {{{5 * 65536, 6 * 65536}, {5 * 65536, 6 * 65536}, {4 * 65536, 5 * 65536}}, {4, 5}},
    };
    for (Case const& c : cases) {
        ChangedGrains const changes(c.ranges, kChangedGrainBytes);
        EXPECT_EQ(grainsOf(changes, 100), c.grains);
        for (__int64 grain = 0; grain < 12; ++grain)
            EXPECT_EQ(changes.isChanged(grain),
                      std::count(c.grains.begin(), c.grains.end(), grain) == 1);
    }
}

TEST(ChangedGrains, EndWithTheImage) {
    ChangedGrains const changes({{0, 20 * kChangedGrainBytes}}, kChangedGrainBytes);
    EXPECT_EQ(grainsOf(changes, 3), (std::vector<__int64>{0, 1, 2}));
    EXPECT_EQ(changes.findNextToRead(3, 3), -1);
}

TEST(ChangedGrains, OthersAreReadToVerifyThem) {
    ChangedGrains changes({{3 * kChangedGrainBytes, 4 * kChangedGrainBytes}}, kChangedGrainBytes);
    changes.verifyOthers(GrainSample());
    EXPECT_EQ(grainsOf(changes, 6), (std::vector<__int64>{0, 1, 2, 3, 4, 5}));
    EXPECT_FALSE(changes.isChanged(2));
    GrainSample const half(50, 11);
    changes.verifyOthers(half);
    std::vector<__int64> expected;
    for (__int64 grain = 0; grain < 200; ++grain) {
        if (grain == 3 || half.contains(grain))
            expected.push_back(grain);
    }
    EXPECT_EQ(grainsOf(changes, 200), expected);
}

} // namespace
