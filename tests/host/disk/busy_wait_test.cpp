#include "host/disk/busy_wait.h"

#include <gtest/gtest.h>

#include "yx/lock_file.h"

using kelm::host::BusyWait;
using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::isInUse;

namespace test_support {
namespace {

yx::CLockFileError lockError(char const* message) {
    return yx::CLockFileError(message, yx::CProps(), nullptr);
}

TEST(BusyWait, KnowsWhatPasses) {
    yx::CLockFileError const inUse = lockError(
        "The disk is in use: its lock file is held by another program or another open disk.");
    EXPECT_TRUE(isInUse(inUse));
    EXPECT_TRUE(isInUse(lockError(
        "The disk is in use: its file is held by another program or another open disk.")));
    EXPECT_TRUE(isInUse(lockError("The lock file is being removed by another program.")));
    EXPECT_TRUE(isInUse(yx::CError("The parent cannot be opened.", "", -1, yx::CProps(), &inUse)));

    EXPECT_FALSE(isInUse(lockError("Cannot take the lock file: Cannot open the file: No")));
    EXPECT_FALSE(isInUse(lockError("The name of the lock file belongs to another file.")));
    EXPECT_FALSE(
        isInUse(yx::CError("The disk is in use: not by a lock", "", -1, yx::CProps(), nullptr)));
}

TEST(BusyWait, TriesAgainUntilItIsFree) {
    int attempts = 0;
    BusyWait wait(std::chrono::seconds(600), nullptr);
    EXPECT_EQ(7, wait.retry([&] {
        if (++attempts < 3)
            throw lockError(yx::kLockFileInUseMessage);
        return 7;
    }));
    EXPECT_EQ(3, attempts);
    EXPECT_TRUE(wait.isOn());
}

TEST(BusyWait, EndsWithTheTimeWhichIsForAllDisksTogether) {
    BusyWait wait(std::chrono::milliseconds(250), nullptr);
    int attempts = 0;
    auto const open = [&] {
        ++attempts;
        throw lockError(yx::kLockFileInUseMessage);
    };
    EXPECT_THROW(wait.retry(open), yx::CLockFileError);
    EXPECT_GE(attempts, 2);
    EXPECT_FALSE(wait.isOn());
    attempts = 0;
    EXPECT_THROW(wait.retry(open), yx::CLockFileError);
    EXPECT_EQ(1, attempts);
}

TEST(BusyWait, TellsWhatIsLeftInWholeSeconds) {
    using std::chrono::milliseconds;
    EXPECT_EQ(0, BusyWait().getLeftSeconds().count());
    EXPECT_EQ(1, BusyWait(milliseconds(1), nullptr).getLeftSeconds().count());
    EXPECT_EQ(2, BusyWait(milliseconds(2000), nullptr).getLeftSeconds().count());
    EXPECT_EQ(3, BusyWait(milliseconds(2001), nullptr).getLeftSeconds().count());
}

TEST(BusyWait, DoesNotWaitWithoutTimeOrForOtherErrors) {
    int attempts = 0;
    BusyWait none;
    EXPECT_THROW(none.retry([&] {
        ++attempts;
        throw lockError(yx::kLockFileInUseMessage);
    }),
                 yx::CLockFileError);
    EXPECT_EQ(1, attempts);
    BusyWait wait(std::chrono::seconds(600), nullptr);
    EXPECT_THROW(wait.retry([&] {
        ++attempts;
        throw yx::CIOError(yx::CIOError::NotFound, "No", yx::CProps(), nullptr);
    }),
                 yx::CIOError);
    EXPECT_EQ(2, attempts);
}

TEST(BusyWait, EndsWhenItIsCancelled) {
    CancelFlag cancel;
    BusyWait wait(std::chrono::seconds(600), &cancel);
    int attempts = 0;
    EXPECT_THROW(wait.retry([&] {
        ++attempts;
        cancel.set();
        throw lockError(yx::kLockFileInUseMessage);
    }),
                 CancelledError);
    EXPECT_EQ(1, attempts);
}

} // namespace
} // namespace test_support
