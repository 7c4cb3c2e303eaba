#include "host/store/store_watch.h"

#include <atomic>
#include <fstream>
#include <future>

#include <gtest/gtest.h>

#include "host/store/store_calls.h"
#include "host/store/stores.h"
#include "tests/support/expect_error.h"
#include "tests/support/folder_store.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::CancelFlag;
using kelm::host::StoreWatch;

/// In a process of its own for each test, since calls that were ended stay so.
class StoreWatchDeathTest : public ::testing::Test {
protected:
    StoreWatchDeathTest() { GTEST_FLAG_SET(death_test_style, "threadsafe"); }

    /// Ends the process with 0 if `expectation` holds of a read that waits without end.
    template <class Prepare, class Expectation>
    static void readFromADeadStore(Prepare const& prepare, Expectation const& expectation) {
        test_support::TempDirectory const folder;
        std::ofstream(folder.path() / "file") << "content";
        auto const store = yx::makeObject<test_support::FolderStore>(folder.path().string());
        kelm::host::AddedStore const added("test", store);
        CancelFlag cancel;
        std::atomic<int> toldTimes = 0;
        StoreWatch::Patience patience;
        patience.untilWords = std::chrono::milliseconds(1);
        patience.untilCancel = std::chrono::milliseconds(1);
        patience.step = std::chrono::milliseconds(1);
        StoreWatch watch(
            cancel, [&](std::chrono::seconds) { ++toldTimes; }, patience);
        unsigned int options = 0;
        yx::CURI const uri("test:/file");
        yx::P<yx::IIOStream> const stream =
            kelm::host::storeOf(uri).openFile(uri, yx::IIOStream::ReadOnly, &options);
        store->setWaiting(true);
        auto const prepared = std::async(std::launch::async, [&] {
            while (toldTimes == 0)
                std::this_thread::yield();
            prepare(cancel, watch);
        });
        char byte = 0;
        bool const isAsExpected = expectation([&] { stream->read(&byte, 1); });
        // All later calls fail at once.
        bool const isFinal = expectation([&] { stream->getLength(); });
        std::_Exit(isAsExpected && isFinal ? 0 : 1);
    }
};

TEST_F(StoreWatchDeathTest, ASignalEndsACallThatWaits) {
    EXPECT_EXIT(readFromADeadStore([](CancelFlag& cancel, StoreWatch&) { cancel.set(); },
                                   [](auto const& call) {
                                       try {
                                           call();
                                       } catch (kelm::host::CancelledError const&) {
                                           return true;
                                       }
                                       return false;
                                   }),
                ::testing::ExitedWithCode(0), "");
}

TEST_F(StoreWatchDeathTest, ATimeoutEndsACallThatWaits) {
    EXPECT_EXIT(
        readFromADeadStore(
            [](CancelFlag&, StoreWatch& watch) { watch.setTimeout(std::chrono::seconds(0)); },
            [](auto const& call) {
                return bool(test_support::throwsIOError(
                    yx::CIOError::IOFailure, "The store did not answer within 0 seconds.",
                    {{"uri", "test:/file"}}, call));
            }),
        ::testing::ExitedWithCode(0), "");
}

TEST(StoreCalls, KnowTheOldest) {
    test_support::TempDirectory const folder;
    auto const store = yx::makeObject<test_support::FolderStore>(folder.path().string());
    kelm::host::StoreCalls& calls = kelm::host::StoreCalls::get();
    EXPECT_FALSE(calls.findOldest());
    {
        kelm::host::StoreCalls::Call const first(*store);
        auto const begin = calls.findOldest();
        EXPECT_TRUE(begin);
        kelm::host::StoreCalls::Call const second(*store);
        EXPECT_EQ(calls.findOldest(), begin);
    }
    EXPECT_FALSE(calls.findOldest());
    calls.verifyNotEnded(yx::CURI("test:/file"));
}

} // namespace
