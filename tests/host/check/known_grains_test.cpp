#include "host/check/known_grains.h"

#include <gtest/gtest.h>

using kelm::host::KnownGrains;

namespace {

TEST(KnownGrains, KnowsWhatWasAdded) {
    KnownGrains known;
    EXPECT_FALSE(known.contains(0));
    for (__int64 const index : {3, 4, 5, 9})
        known.add(index);
    for (__int64 index = 0; index < 12; ++index)
        EXPECT_EQ((index >= 3 && index <= 5) || index == 9, known.contains(index)) << index;
}

TEST(KnownGrains, AGrainMayBeAddedTwice) {
    KnownGrains known;
    known.add(3);
    known.add(3);
    EXPECT_TRUE(known.contains(3));
    EXPECT_FALSE(known.contains(4));
}

TEST(KnownGrains, ForgetsWhatIsTooMuch) {
    KnownGrains known;
    for (__int64 index = 0; index < 3 << 20; index += 2)
        known.add(index);
    EXPECT_TRUE(known.contains((2 << 20) - 2));
    EXPECT_FALSE(known.contains(2 << 20));
}

} // namespace
