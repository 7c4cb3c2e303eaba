#include "host/transfer/early_writes.h"

#include <array>
#include <atomic>
#include <future>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "host/system/worker_pipeline.h"

namespace kelm::host {
namespace {

/// Runs that are known by their places, and a file that may be held up or broken.
class EarlyWritesTest : public testing::Test {
protected:
    void write(ExportRun const& run) {
        if (&run == m_slowRun) {
            m_slowHasBegun.set_value();
            m_slowMayEnd.get_future().wait();
        }
        if (m_isBroken)
            throw std::runtime_error("broken");
        m_written.push_back(static_cast<int>(&run - m_runs.data()));
    }

    /// Worker 0 writes run 0 until `endSlowWrite`.
    void beginSlowWrite() {
        m_slowRun = m_runs.data();
        m_slowWriter = std::thread([this] { m_writes.write(m_runs[0], 0); });
        m_slowHasBegun.get_future().wait();
    }

    void endSlowWrite() {
        m_slowMayEnd.set_value();
        m_slowWriter.join();
    }

    std::array<ExportRun, 6> m_runs;
    std::vector<int> m_written;
    bool m_isBroken = false;
    EarlyWrites m_writes{2, [this](ExportRun const& run) { write(run); }};

private:
    ExportRun const* m_slowRun = nullptr;
    std::promise<void> m_slowHasBegun;
    std::promise<void> m_slowMayEnd;
    std::thread m_slowWriter;
};

TEST_F(EarlyWritesTest, RunIsWrittenAtOnceAndOnce) {
    m_writes.write(m_runs[3], 1);
    EXPECT_EQ(m_written, (std::vector{3}));
    m_writes.finish(m_runs[3]);
    EXPECT_EQ(m_written, (std::vector{3}));
}

TEST_F(EarlyWritesTest, WhoMeetsAWriteLeavesItsRunsAndWritesThemWithTheNext) {
    beginSlowWrite();
    m_writes.write(m_runs[1], 1);
    m_writes.write(m_runs[2], 1);
    EXPECT_TRUE(m_written.empty());
    endSlowWrite();
    EXPECT_EQ(m_written, (std::vector{0}));
    m_writes.write(m_runs[3], 1);
    EXPECT_EQ(m_written, (std::vector{0, 1, 2, 3}));
}

TEST_F(EarlyWritesTest, RunThatWasLeftIsWrittenWhenItsTurnComes) {
    beginSlowWrite();
    m_writes.write(m_runs[1], 1);
    m_writes.write(m_runs[2], 1);
    std::thread owner([this] { m_writes.finish(m_runs[1]); });
    endSlowWrite();
    owner.join();
    EXPECT_EQ(m_written, (std::vector{0, 1}));
    m_writes.write(m_runs[3], 1);
    EXPECT_EQ(m_written, (std::vector{0, 1, 2, 3}));
}

TEST_F(EarlyWritesTest, WhoHasLeftEnoughWaits) {
    static_assert(EarlyWrites::kMaxLeft == 2);
    beginSlowWrite();
    m_writes.write(m_runs[1], 1);
    m_writes.write(m_runs[2], 1);
    std::thread worker([this] {
        m_writes.write(m_runs[3], 1);
        // It did not return before it could write.
        EXPECT_EQ(m_written, (std::vector{0, 1, 2, 3}));
    });
    endSlowWrite();
    worker.join();
}

TEST_F(EarlyWritesTest, OwnerWaitsForARunThatIsBeingWritten) {
    beginSlowWrite();
    std::thread owner([this] {
        m_writes.finish(m_runs[0]);
        EXPECT_EQ(m_written, (std::vector{0}));
    });
    endSlowWrite();
    owner.join();
}

TEST_F(EarlyWritesTest, RunThatCannotBeWrittenFailsInItsTurnToo) {
    m_isBroken = true;
    EXPECT_THROW(m_writes.write(m_runs[1], 1), std::runtime_error);
    EXPECT_THROW(m_writes.finish(m_runs[1]), std::runtime_error);
    EXPECT_THROW(m_writes.write(m_runs[2], 1), std::runtime_error);
    m_isBroken = false;
    m_writes.finish(m_runs[2]);
    m_writes.finish(m_runs[1]);
    EXPECT_EQ(m_written, (std::vector{2, 1}));
}

TEST(EarlyWrites, ManyWorkersWriteEachRunOnceBeforeItsTurnEnds) {
    constexpr int kWorkers = 4;
    constexpr std::size_t kRuns = 20000;
    std::atomic<int> writers = 0;
    std::vector<int> timesWritten(kRuns);
    EarlyWrites writes(kWorkers, [&](ExportRun const& run) {
        EXPECT_EQ(++writers, 1);
        ++timesWritten[run.count];
        --writers;
    });
    WorkerPipeline<ExportRun> pipeline(
        kWorkers, 20, [&](ExportRun& run, int worker) { writes.write(run, worker); });
    std::size_t submitted = 0;
    for (std::size_t finished = 0; finished < kRuns;) {
        ExportRun* const free = submitted < kRuns ? pipeline.getFree() : nullptr;
        if (free) {
            free->count = submitted++;
            pipeline.submit();
            continue;
        }
        ExportRun const& oldest = pipeline.takeOldest();
        writes.finish(oldest);
        ASSERT_EQ(oldest.count, finished);
        ASSERT_EQ(timesWritten[finished], 1);
        pipeline.recycle();
        ++finished;
    }
}

} // namespace
} // namespace kelm::host
