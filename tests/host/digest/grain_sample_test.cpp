#include "host/digest/grain_sample.h"

#include <gtest/gtest.h>

using kelm::host::GrainSample;

namespace {

int countIn(GrainSample const& sample, int grains) {
    int count = 0;
    for (int grain = 0; grain < grains; ++grain)
        count += sample.contains(grain) ? 1 : 0;
    return count;
}

TEST(GrainSample, HasAllGrainsUnlessToldOtherwise) {
    EXPECT_EQ(countIn(GrainSample(), 1000), 1000);
    EXPECT_EQ(countIn(GrainSample(100, 7), 1000), 1000);
}

TEST(GrainSample, HasAboutSoManyOfThem) {
    for (unsigned long long const seed : {1ULL, 2ULL, 0xFFFFFFFFULL}) {
        EXPECT_NEAR(countIn(GrainSample(10, seed), 100000), 10000, 500);
        EXPECT_NEAR(countIn(GrainSample(0.5, seed), 100000), 500, 100);
    }
}

TEST(GrainSample, IsTheSameForTheSameSeed) {
    GrainSample const sample(50, 5);
    GrainSample const again(50, 5);
    GrainSample const other(50, 6);
    int differences = 0;
    for (int grain = 0; grain < 1000; ++grain) {
        EXPECT_EQ(sample.contains(grain), again.contains(grain));
        differences += sample.contains(grain) == other.contains(grain) ? 0 : 1;
    }
    EXPECT_GT(differences, 400);
    EXPECT_LT(differences, 600);
}

// 1 - 0.05^(1/n): with that part of the grains damaged, n of them are all sound in 5 % of cases.
TEST(GrainSample, SaysWhatSoManySoundGrainsShow) {
    EXPECT_EQ(GrainSample::calcMaxDamagedPercent(0), 100);
    EXPECT_DOUBLE_EQ(GrainSample::calcMaxDamagedPercent(1), 95);
    EXPECT_NEAR(GrainSample::calcMaxDamagedPercent(59), 4.951, 0.001);
    EXPECT_NEAR(GrainSample::calcMaxDamagedPercent(299), 0.997, 0.001);
    EXPECT_NEAR(GrainSample::calcMaxDamagedPercent(3000000), 0.0000999, 0.0000001);
}

} // namespace
