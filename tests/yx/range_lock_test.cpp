// Locked ranges of files, on each file system of the framework.

#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/yx/file_system_fixture.h"

namespace {

using test_support::throwsIOError;
using yx::CIOError;
using yx::IIOStream;
using yx::IStreamBase;

template <class Backend>
class RangeLock : public FileSystemFixture<Backend> {
protected:
    /// Whether a stream gets the lock now; it is freed again.
    static bool isFree(yx::P<IIOStream> const& stream, long long position, long long length,
                       IStreamBase::LockType type) {
        try {
            stream->lockRange(position, length, type);
            return true;
        } catch (CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), CIOError::AccessDenied) << error.what();
            return false;
        }
    }

    yx::P<IIOStream> one = this->open("a", IIOStream::ReadWrite);
    yx::P<IIOStream> other = this->open("a", IIOStream::ReadWrite);
};

TYPED_TEST_SUITE(RangeLock, FileSystemBackends);

TYPED_TEST(RangeLock, ExclusiveKeepsAllOthersOutUntilItGoes) {
    auto lock = this->one->lockRange(10, 5, IStreamBase::Exclusive);
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "The range is locked by another holder.",
                              {{"uri", this->text("a")}, {"position", "14"}, {"length", "3"}},
                              [&] { this->other->lockRange(14, 3, IStreamBase::Shared); }));
    EXPECT_FALSE(this->isFree(this->other, 0, 11, IStreamBase::Exclusive));
    lock.reset();
    EXPECT_TRUE(this->isFree(this->other, 14, 3, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, SharedHoldersCoexistAndKeepExclusiveOut) {
    auto const first = this->one->lockRange(0, 1, IStreamBase::Shared);
    auto second = this->other->lockRange(0, 1, IStreamBase::Shared);
    EXPECT_FALSE(this->isFree(this->one, 0, 1, IStreamBase::Exclusive));
    EXPECT_TRUE(this->isFree(this->open("a", IIOStream::ReadOnly), 0, 1, IStreamBase::Shared));
    second.reset();
    EXPECT_TRUE(this->isFree(this->one, 0, 1, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, RangesThatDoNotMeetDoNotConflict) {
    auto const lock = this->one->lockRange(10, 5, IStreamBase::Exclusive);
    EXPECT_TRUE(this->isFree(this->other, 0, 10, IStreamBase::Exclusive));
    EXPECT_TRUE(this->isFree(this->other, 15, 1LL << 40, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, HoldsAfterTheStreamIsClosedAsLongAsItsTokenLives) {
    auto lock = this->one->lockRange(0, 1, IStreamBase::Exclusive);
    this->one->close();
    this->one.reset();
    EXPECT_FALSE(this->isFree(this->other, 0, 1, IStreamBase::Shared));
    lock.reset();
    EXPECT_TRUE(this->isFree(this->other, 0, 1, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, OneStreamChangesItsOwnLock) {
    auto const first = this->one->lockRange(0, 10, IStreamBase::Shared);
    auto const second = this->one->lockRange(2, 3, IStreamBase::Exclusive);
    EXPECT_TRUE(this->isFree(this->other, 0, 2, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 2, 1, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 4, 1, IStreamBase::Shared));
    EXPECT_TRUE(this->isFree(this->other, 5, 5, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 9, 1, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, AChangeThatIsRefusedKeepsTheLock) {
    auto const lock = this->one->lockRange(0, 1, IStreamBase::Shared);
    auto const foreign = this->other->lockRange(0, 1, IStreamBase::Shared);
    EXPECT_FALSE(this->isFree(this->one, 0, 1, IStreamBase::Exclusive));
    auto const third = this->open("a", IIOStream::ReadWrite);
    EXPECT_FALSE(this->isFree(third, 0, 1, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, FreeingPartOfARangeLeavesTheRest) {
    auto const first = this->one->lockRange(0, 10, IStreamBase::Exclusive);
    this->one->lockRange(4, 2, IStreamBase::Exclusive).reset();
    EXPECT_FALSE(this->isFree(this->other, 3, 1, IStreamBase::Shared));
    EXPECT_TRUE(this->isFree(this->other, 4, 2, IStreamBase::Exclusive));
    EXPECT_FALSE(this->isFree(this->other, 6, 1, IStreamBase::Shared));
}

TYPED_TEST(RangeLock, BelongsToTheFileAndNotToItsName) {
    auto const lock = this->one->lockRange(0, 1, IStreamBase::Exclusive);
    this->files().deleteFile(this->backend.uri("a"), false);
    EXPECT_TRUE(this->isFree(this->open("a", IIOStream::ReadWrite), 0, 1, IStreamBase::Exclusive));
    EXPECT_FALSE(this->isFree(this->other, 0, 1, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, KeepsOtherThreadsOut) {
    auto const lock = this->one->lockRange(0, 1, IStreamBase::Exclusive);
    bool isFree = true;
    std::thread([&] { isFree = this->isFree(this->other, 0, 1, IStreamBase::Shared); }).join();
    EXPECT_FALSE(isFree);
}

TYPED_TEST(RangeLock, BadRangesAreRefused) {
    EXPECT_TRUE(throwsIOError(CIOError::BadPosition, "Invalid stream position: -1",
                              {{"uri", this->text("a")}, {"position", "-1"}},
                              [&] { this->one->lockRange(-1, 1, IStreamBase::Shared); }));
    struct Range {
        long long position;
        long long length;
    };
    for (Range const range : {Range{0, 0}, Range{0, -1}, Range{1, 9223372036854775807}}) {
        EXPECT_TRUE(throwsIOError(
            CIOError::BadPosition, "Invalid stream length: " + std::to_string(range.length),
            {{"uri", this->text("a")}, {"length", std::to_string(range.length)}},
            [&] { this->one->lockRange(range.position, range.length, IStreamBase::Shared); }));
    }
}

} // namespace
