#include "host/transfer/grain_pipeline.h"

#include <set>
#include <vector>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace kelm::host {
namespace {

constexpr __int64 kGrainSizeBytes = 65536;

/// Fills items with the numbers from 0 up to the count.
GrainPipeline::Fill numbersUpTo(__int64 count) {
    return [count, next = __int64{0}](GrainItem& item) mutable {
        if (next == count)
            return false;
        item.grainIndex = next++;
        item.input->setUsed(1);
        item.input->getData()[0] = static_cast<unsigned char>(item.grainIndex);
        return true;
    };
}

TEST(GrainPipeline, PassesAllGrainsThroughFewBuffersInOrder) {
    std::set<void const*> buffers;
    std::vector<__int64> drained;
    GrainPipeline pipeline(3, kGrainSizeBytes, [](GrainItem& item, int worker) {
        EXPECT_LT(worker, 3);
        EXPECT_EQ(nullptr, item.result.get());
        item.aux1->setUsed(1);
        item.aux1->getData()[0] = static_cast<unsigned char>(item.input->getData()[0] + 1);
        item.result = item.aux1;
    });
    pipeline.run(numbersUpTo(10000), [&](GrainItem& item) {
        ASSERT_EQ(static_cast<unsigned char>(item.grainIndex + 1), item.result->getData()[0]);
        for (auto const& buffer : {item.input, item.aux1, item.aux2})
            buffers.insert(buffer.get());
        drained.push_back(item.grainIndex);
    });
    ASSERT_EQ(10000U, drained.size());
    for (__int64 index = 0; index < 10000; ++index)
        ASSERT_EQ(index, drained[static_cast<std::size_t>(index)]);
    EXPECT_EQ(static_cast<std::size_t>(3 * GrainPipeline::calcItemCount(kGrainSizeBytes, 3)),
              buffers.size());
}

TEST(GrainPipeline, ResultOfAnEarlierGrainIsNotLeftInAnItem) {
    GrainPipeline pipeline(1, 64 << 20, [](GrainItem& item, int) {
        if (item.grainIndex % 2 == 0)
            item.result = item.input;
    });
    pipeline.run(numbersUpTo(10), [](GrainItem& item) {
        EXPECT_EQ(item.grainIndex % 2 == 0, item.result != nullptr) << item.grainIndex;
    });
}

TEST(GrainPipeline, FailureOfTheWorkComesInItsTurn) {
    std::vector<__int64> drained;
    GrainPipeline pipeline(3, kGrainSizeBytes, [](GrainItem& item, int) {
        if (item.grainIndex >= 5)
            throw yx::CIOError(yx::CIOError::CorruptData,
                               "Bad grain " + yx::toString(item.grainIndex), yx::CProps(), nullptr);
    });
    try {
        pipeline.run(numbersUpTo(100),
                     [&](GrainItem& item) { drained.push_back(item.grainIndex); });
        FAIL() << "threw nothing";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ("Bad grain 5", error.getMessage().toStdString());
    }
    EXPECT_EQ((std::vector<__int64>{0, 1, 2, 3, 4}), drained);
}

TEST(GrainPipeline, WithoutGrainsNothingIsDrained) {
    GrainPipeline pipeline(2, kGrainSizeBytes, [](GrainItem&, int) {});
    pipeline.run([](GrainItem&) { return false; }, [](GrainItem&) { FAIL(); });
}

TEST(GrainPipeline, TakesAtMost64MiB) {
    // Three buffers of a little more than a grain each.
    EXPECT_EQ(48, GrainPipeline::calcItemCount(65536, 2));
    for (__int64 const grainBytes : {512LL, 65536LL, 1LL << 20, 16LL << 20}) {
        for (int const threads : {1, 16, 1000}) {
            int const count = GrainPipeline::calcItemCount(grainBytes, threads);
            EXPECT_GE(count, 1);
            EXPECT_LE(3 * grainBytes * count, 64 << 20);
        }
    }
    EXPECT_EQ(1, GrainPipeline::calcItemCount(1LL << 30, 8));
}

} // namespace
} // namespace kelm::host
