#include "host/disk/grain_piece.h"

#include <algorithm>
#include <numeric>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

using kelm::host::GrainPiece;

namespace test_support {
namespace grain_piece_test {
namespace {

void expectHolds(GrainPiece const& piece, std::set<int> const& grains) {
    EXPECT_EQ(grains.empty(), piece.isEmpty());
    auto next = grains.begin();
    for (int index = 0; index < GrainPiece::kGrains; ++index) {
        ASSERT_EQ(next == grains.end() ? GrainPiece::kGrains : *next, piece.findNext(index));
        bool const isIn = next != grains.end() && *next == index;
        ASSERT_EQ(isIn, piece.contains(index)) << index;
        if (isIn)
            ++next;
    }
}

TEST(GrainPiece, HoldsNothingAtFirst) {
    expectHolds(GrainPiece(), {});
}

TEST(GrainPiece, HoldsFewAndManyInAnyOrder) {
    constexpr unsigned int kSeed = 20;
    std::vector<int> order(GrainPiece::kGrains);
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(kSeed));
    GrainPiece piece;
    std::set<int> grains;
    for (std::size_t const count : {1U, 2U, 1023U, 1024U, 1025U, 5000U, 32768U}) {
        while (grains.size() < count) {
            int const grain = order[grains.size()];
            grains.insert(grain);
            piece.add(grain);
            piece.add(grain);
        }
        SCOPED_TRACE(count);
        expectHolds(piece, grains);
    }
}

TEST(GrainPiece, HoldsBothEndsHoweverManyThereAre) {
    for (int const step : {GrainPiece::kGrains - 1, 31, 1}) {
        GrainPiece piece;
        std::set<int> grains{0, GrainPiece::kGrains - 1};
        for (int grain = 0; grain < GrainPiece::kGrains; grain += step)
            grains.insert(grain);
        for (int const grain : grains)
            piece.add(grain);
        SCOPED_TRACE(step);
        expectHolds(piece, grains);
    }
}

} // namespace
} // namespace grain_piece_test
} // namespace test_support
