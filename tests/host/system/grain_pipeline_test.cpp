#include "host/system/grain_pipeline.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace kelm::host {
namespace {

using Item = GrainPipeline::Item;

/// A door that stays open once it has been opened.
class Door {
public:
    void open() {
        std::lock_guard const lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void wait() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [this] { return m_open; });
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

void submit(GrainPipeline& pipeline, __int64 grainIndex) {
    Item* const item = pipeline.getFree();
    ASSERT_NE(nullptr, item);
    item->grainIndex = grainIndex;
    pipeline.submit();
}

TEST(GrainPipeline, GivesItemsBackInOrderWhoeverIsDoneFirst) {
    Door secondIsDone;
    std::vector<__int64> doneOrder;
    std::mutex mutex;
    GrainPipeline pipeline(2, 4, [&](Item& item, int) {
        if (item.grainIndex == 0)
            secondIsDone.wait();
        std::lock_guard const lock(mutex);
        doneOrder.push_back(item.grainIndex);
        if (item.grainIndex == 1)
            secondIsDone.open();
    });
    submit(pipeline, 0);
    submit(pipeline, 1);
    for (__int64 expected = 0; expected < 2; ++expected) {
        EXPECT_EQ(expected, pipeline.takeOldest().grainIndex);
        pipeline.recycle();
    }
    EXPECT_EQ((std::vector<__int64>{1, 0}), doneOrder);
    EXPECT_FALSE(pipeline.isBusy());
}

TEST(GrainPipeline, CarriesManyItemsThroughFewBuffers) {
    GrainPipeline pipeline(3, 5, [](Item& item, int worker) {
        EXPECT_LT(worker, 3);
        item.aux1->setUsed(1);
        item.aux1->getData()[0] = static_cast<unsigned char>(item.input->getData()[0] + 1);
        item.result = item.aux1;
    });
    std::set<void const*> buffers;
    __int64 taken = 0;
    auto const take = [&] {
        Item& item = pipeline.takeOldest();
        ASSERT_EQ(taken, item.grainIndex);
        ASSERT_EQ(static_cast<unsigned char>(taken + 1), item.result->getData()[0]);
        ++taken;
        pipeline.recycle();
    };
    for (__int64 i = 0; i < 10000; ++i) {
        while (!pipeline.getFree())
            take();
        Item* const item = pipeline.getFree();
        EXPECT_EQ(nullptr, item->result.get());
        item->grainIndex = i;
        item->input->setUsed(1);
        item->input->getData()[0] = static_cast<unsigned char>(i);
        for (auto const& buffer : {item->input, item->aux1, item->aux2})
            buffers.insert(buffer.get());
        pipeline.submit();
    }
    while (pipeline.isBusy())
        take();
    EXPECT_EQ(10000, taken);
    EXPECT_EQ(15U, buffers.size());
}

TEST(GrainPipeline, HasNoFreeItemWhileAllAreOnTheirWay) {
    GrainPipeline pipeline(1, 3, [](Item&, int) {});
    for (__int64 i = 0; i < 3; ++i)
        submit(pipeline, i);
    EXPECT_EQ(nullptr, pipeline.getFree());
    pipeline.takeOldest();
    EXPECT_EQ(nullptr, pipeline.getFree());
    pipeline.recycle();
    EXPECT_NE(nullptr, pipeline.getFree());
}

TEST(GrainPipeline, FailureOfTheWorkArrivesWithItsTypeInItsTurn) {
    GrainPipeline pipeline(2, 8, [](Item& item, int) {
        if (item.grainIndex == 2)
            throw yx::CIOError(yx::CIOError::CorruptData, "Bad grain.",
                               yx::CProps().add("uri", "x"), nullptr);
        if (item.grainIndex == 3)
            throw yx::CError("A later failure.", "", -1, yx::CProps(), nullptr);
    });
    for (__int64 i = 0; i < 6; ++i)
        submit(pipeline, i);
    for (__int64 i = 0; i < 2; ++i) {
        EXPECT_EQ(i, pipeline.takeOldest().grainIndex);
        pipeline.recycle();
    }
    try {
        pipeline.takeOldest();
        FAIL() << "threw nothing";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::CorruptData, error.getIOCode());
        EXPECT_EQ("Bad grain.", error.getMessage().toStdString());
        ASSERT_NE(nullptr, error.getParams().find("uri"));
    }
}

TEST(GrainPipeline, EndsWithWorkOnItsWay) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> done = 0;
        {
            GrainPipeline pipeline(4, 16, [&](Item&, int) { ++done; });
            for (__int64 i = 0; i < 16; ++i)
                submit(pipeline, i);
        }
        EXPECT_LE(done.load(), 16);
    }
}

TEST(GrainPipeline, EndsWithoutAnyWork) {
    GrainPipeline const pipeline(4, 16, [](Item&, int) {});
    EXPECT_FALSE(pipeline.isBusy());
}

TEST(GrainPipeline, FailureOfTheOwnerLeavesNobodyWaiting) {
    EXPECT_THROW(
        {
            GrainPipeline pipeline(2, 4, [](Item&, int) {});
            submit(pipeline, 0);
            submit(pipeline, 1);
            throw std::runtime_error("owner");
        },
        std::runtime_error);
}

TEST(GrainPipeline, HasAtLeastOneWorkerAndOneItem) {
    GrainPipeline pipeline(0, 0, [](Item& item, int) { item.result = item.input; });
    submit(pipeline, 7);
    EXPECT_EQ(7, pipeline.takeOldest().grainIndex);
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

TEST(GrainPipeline, GoesOnBehindAnErrorWhenItsItemIsRecycled) {
    GrainPipeline pipeline(2, 2, [](Item& item, int) {
        if (item.grainIndex % 2 == 0)
            throw yx::CError("odd ones only", "", -1, yx::CProps(), nullptr);
    });
    for (__int64 index = 0; index < 10; ++index) {
        submit(pipeline, index);
        if (index % 2 == 0)
            EXPECT_THROW(pipeline.takeOldest(), yx::CError);
        else
            EXPECT_EQ(index, pipeline.takeOldest().grainIndex);
        pipeline.recycle();
    }
    EXPECT_FALSE(pipeline.isBusy());
}

} // namespace
} // namespace kelm::host
