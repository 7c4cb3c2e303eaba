#include "host/system/worker_pipeline.h"

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <set>

#include <gtest/gtest.h>

#include "yx/error.h"

namespace kelm::host {
namespace {

struct Item {
    __int64 number = 0;
    __int64 result = -1;
};

using Pipeline = WorkerPipeline<Item>;

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

void submit(Pipeline& pipeline, __int64 number) {
    Item* const item = pipeline.getFree();
    ASSERT_NE(nullptr, item);
    item->number = number;
    pipeline.submit();
}

template <class Call>
void expectRefused(std::string const& message, Call const& call) {
    try {
        call();
        FAIL() << "threw nothing instead of: " << message;
    } catch (yx::CError const& error) {
        EXPECT_EQ(message, error.getMessage().toStdString());
    }
}

TEST(WorkerPipeline, GivesItemsBackInOrderWhoeverIsDoneFirst) {
    Door secondIsDone;
    std::vector<__int64> doneOrder;
    std::mutex mutex;
    Pipeline pipeline(2, 4, [&](Item& item, int) {
        if (item.number == 0)
            secondIsDone.wait();
        std::lock_guard const lock(mutex);
        doneOrder.push_back(item.number);
        if (item.number == 1)
            secondIsDone.open();
    });
    submit(pipeline, 0);
    submit(pipeline, 1);
    for (__int64 expected = 0; expected < 2; ++expected) {
        EXPECT_EQ(expected, pipeline.takeOldest().number);
        pipeline.recycle();
    }
    EXPECT_EQ((std::vector<__int64>{1, 0}), doneOrder);
    EXPECT_FALSE(pipeline.isBusy());
}

TEST(WorkerPipeline, CarriesManyThroughFewItems) {
    Pipeline pipeline(3, 5, [](Item& item, int worker) {
        EXPECT_LT(worker, 3);
        item.result = item.number + 1;
    });
    std::set<void const*> items;
    __int64 taken = 0;
    auto const take = [&] {
        Item const& item = pipeline.takeOldest();
        ASSERT_EQ(taken, item.number);
        ASSERT_EQ(taken + 1, item.result);
        ++taken;
        pipeline.recycle();
    };
    for (__int64 i = 0; i < 10000; ++i) {
        while (!pipeline.getFree())
            take();
        items.insert(pipeline.getFree());
        submit(pipeline, i);
    }
    while (pipeline.isBusy())
        take();
    EXPECT_EQ(10000, taken);
    EXPECT_EQ(5U, items.size());
    EXPECT_EQ(5U, pipeline.getItemCount());
}

TEST(WorkerPipeline, HasNoFreeItemWhileAllAreOnTheirWay) {
    Pipeline pipeline(1, 3, [](Item&, int) {});
    for (__int64 i = 0; i < 3; ++i)
        submit(pipeline, i);
    EXPECT_EQ(nullptr, pipeline.getFree());
    pipeline.takeOldest();
    EXPECT_EQ(nullptr, pipeline.getFree());
    pipeline.recycle();
    EXPECT_NE(nullptr, pipeline.getFree());
}

TEST(WorkerPipeline, FailureOfTheWorkArrivesWithItsTypeInItsTurn) {
    Pipeline pipeline(2, 8, [](Item& item, int) {
        if (item.number == 2)
            throw yx::CIOError(yx::CIOError::CorruptData, "Bad grain.",
                               yx::CProps().add("uri", "x"), nullptr);
        if (item.number == 3)
            throw yx::CError("A later failure.", "", -1, yx::CProps(), nullptr);
    });
    for (__int64 i = 0; i < 6; ++i)
        submit(pipeline, i);
    for (__int64 i = 0; i < 2; ++i) {
        EXPECT_EQ(i, pipeline.takeOldest().number);
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

TEST(WorkerPipeline, EndsWithWorkOnItsWay) {
    for (int round = 0; round < 200; ++round) {
        std::atomic<int> done = 0;
        {
            Pipeline pipeline(4, 16, [&](Item&, int) { ++done; });
            for (__int64 i = 0; i < 16; ++i)
                submit(pipeline, i);
        }
        EXPECT_LE(done.load(), 16);
    }
}

TEST(WorkerPipeline, EndsWithoutAnyWork) {
    Pipeline const pipeline(4, 16, [](Item&, int) {});
    EXPECT_FALSE(pipeline.isBusy());
}

TEST(WorkerPipeline, FailureOfTheOwnerLeavesNobodyWaiting) {
    EXPECT_THROW(
        {
            Pipeline pipeline(2, 4, [](Item&, int) {});
            submit(pipeline, 0);
            submit(pipeline, 1);
            throw std::runtime_error("owner");
        },
        std::runtime_error);
}

TEST(WorkerPipeline, HasAtLeastOneWorkerAndOneItem) {
    Pipeline pipeline(0, 0, [](Item& item, int) { item.result = item.number; });
    submit(pipeline, 7);
    EXPECT_EQ(7, pipeline.takeOldest().result);
}

TEST(OrderedWorkers, SlotsTakeAtMost64MiB) {
    EXPECT_EQ(48, OrderedWorkers::calcSlotCount(65536, 2));
    for (__int64 const slotBytes : {512LL, 65536LL, 1LL << 20, 16LL << 20}) {
        for (int const threads : {1, 16, 1000}) {
            int const count = OrderedWorkers::calcSlotCount(slotBytes, threads);
            EXPECT_GE(count, 1);
            EXPECT_LE(slotBytes * count, 64 << 20);
        }
    }
    EXPECT_EQ(1, OrderedWorkers::calcSlotCount(1LL << 30, 8));
}

TEST(WorkerPipeline, GoesOnBehindAnErrorWhenItsItemIsRecycled) {
    Pipeline pipeline(2, 2, [](Item& item, int) {
        if (item.number % 2 == 0)
            throw yx::CError("odd ones only", "", -1, yx::CProps(), nullptr);
    });
    for (__int64 index = 0; index < 10; ++index) {
        submit(pipeline, index);
        if (index % 2 == 0)
            EXPECT_THROW(pipeline.takeOldest(), yx::CError);
        else
            EXPECT_EQ(index, pipeline.takeOldest().number);
        pipeline.recycle();
    }
    EXPECT_FALSE(pipeline.isBusy());
}

TEST(WorkerPipeline, CallsOutOfTurnAreRefusedAndChangeNothing) {
    Pipeline pipeline(2, 1, [](Item& item, int) { item.result = item.number; });
    expectRefused("No work is on its way.", [&] { pipeline.takeOldest(); });
    expectRefused("No slot is taken.", [&] { pipeline.recycle(); });
    expectRefused("No slot is taken.", [&] { pipeline.getTaken(); });
    submit(pipeline, 1);
    expectRefused("No slot is free.", [&] { pipeline.submit(); });
    expectRefused("No slot is taken.", [&] { pipeline.recycle(); });
    EXPECT_EQ(1, pipeline.takeOldest().result);
    expectRefused("No slot is free.", [&] { pipeline.submit(); });
    EXPECT_EQ(1, pipeline.takeOldest().result);
    EXPECT_EQ(1, pipeline.getTaken().result);
    pipeline.recycle();
    expectRefused("No slot is taken.", [&] { pipeline.recycle(); });
    expectRefused("No work is on its way.", [&] { pipeline.takeOldest(); });
    submit(pipeline, 2);
    EXPECT_EQ(2, pipeline.takeOldest().result);
}

TEST(WorkerPipeline, ItemWhoseWorkFailedIsTaken) {
    Pipeline pipeline(1, 2,
                      [](Item&, int) { throw yx::CError("no", "", -1, yx::CProps(), nullptr); });
    submit(pipeline, 5);
    EXPECT_THROW(pipeline.takeOldest(), yx::CError);
    EXPECT_EQ(5, pipeline.getTaken().number);
    EXPECT_THROW(pipeline.takeOldest(), yx::CError);
    pipeline.recycle();
    EXPECT_FALSE(pipeline.isBusy());
}

} // namespace
} // namespace kelm::host
