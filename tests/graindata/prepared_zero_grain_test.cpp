#include "kelm/graindata/prepared_zero_grain.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"

namespace kelm {

namespace prepared_zero_grain_test {

namespace {

constexpr int kGrainSizeBytes = 8 * kSectorSizeBytes;

TEST(PreparedZeroGrain, HasTheBytesThatAreStoredPlain) {
    CVMDKDataPreparer preparer(8, false, 1);
    CVMDKPreparedZeroGrain grain;
    EXPECT_EQ(test_support::zeros(kGrainSizeBytes),
              test_support::toBytes(grain.get(preparer, kGrainSizeBytes, 5)));
}

TEST(PreparedZeroGrain, IsThatOfTheIndexAskedForLast) {
    CVMDKDataPreparer preparer(8, true, 1);
    CVMDKPreparedZeroGrain grain;
    for (int const index : {0, 3, 0, 1000}) {
        yx::TBuffer<unsigned char> zeros(kGrainSizeBytes, -1);
        yx::initMemory(zeros.getData(), 0, kGrainSizeBytes);
        auto const source = yx::makeObject<yx::TBuffer<unsigned char>>(zeros);
        auto const room = yx::makeObject<yx::TBuffer<unsigned char>>();
        test_support::Bytes const expected =
            test_support::toBytes(*preparer.prepareGrainData(source.get(), index, room.get()));
        EXPECT_EQ(expected, test_support::toBytes(grain.get(preparer, kGrainSizeBytes, index)));
        EXPECT_EQ(expected, test_support::toBytes(grain.getLast()));
        EXPECT_EQ(index * 8, expected[0] + 256 * expected[1]);
    }
}

} // namespace

} // namespace prepared_zero_grain_test

} // namespace kelm
