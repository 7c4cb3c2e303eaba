// Locked ranges of files, on each file system of the framework.

#include <algorithm>
#include <random>
#include <string>
#include <thread>
#include <vector>

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

TYPED_TEST(RangeLock, ARangeIsHeldAsLongAsAnyTokenOnItLives) {
    auto const first = this->one->lockRange(0, 10, IStreamBase::Exclusive);
    this->one->lockRange(4, 2, IStreamBase::Exclusive).reset();
    this->one->lockRange(8, 10, IStreamBase::Shared).reset();
    EXPECT_FALSE(this->isFree(this->other, 3, 1, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 4, 2, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 9, 1, IStreamBase::Shared));
    EXPECT_TRUE(this->isFree(this->other, 10, 10, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, ATokenThatIsReplacedByAStrongerOneFreesNothingOfIt) {
    yx::P<yx::IStreamLock> lock = this->one->lockRange(0, 10, IStreamBase::Shared);
    lock = this->one->lockRange(0, 10, IStreamBase::Exclusive);
    EXPECT_FALSE(this->isFree(this->other, 0, 1, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 9, 1, IStreamBase::Shared));
    lock.reset();
    EXPECT_TRUE(this->isFree(this->other, 0, 10, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, TheStrongerOfTwoTokensCountsUntilItGoes) {
    auto exclusive = this->one->lockRange(0, 10, IStreamBase::Exclusive);
    auto shared = this->one->lockRange(0, 10, IStreamBase::Shared);
    EXPECT_FALSE(this->isFree(this->other, 5, 1, IStreamBase::Shared));
    exclusive.reset();
    EXPECT_TRUE(this->isFree(this->other, 0, 10, IStreamBase::Shared));
    EXPECT_FALSE(this->isFree(this->other, 5, 1, IStreamBase::Exclusive));
    shared.reset();
    EXPECT_TRUE(this->isFree(this->other, 0, 10, IStreamBase::Exclusive));
}

TYPED_TEST(RangeLock, ARefusedRangeLeavesThoseThatItMeetsAsTheyWere) {
    auto const exclusive = this->one->lockRange(0, 4, IStreamBase::Exclusive);
    auto const shared = this->one->lockRange(4, 4, IStreamBase::Shared);
    auto const foreign = this->other->lockRange(12, 1, IStreamBase::Exclusive);
    for (IStreamBase::LockType const type : {IStreamBase::Shared, IStreamBase::Exclusive}) {
        EXPECT_FALSE(this->isFree(this->one, 2, 20, type));
        EXPECT_FALSE(this->isFree(this->other, 3, 1, IStreamBase::Shared));
        EXPECT_TRUE(this->isFree(this->other, 4, 4, IStreamBase::Shared));
        EXPECT_FALSE(this->isFree(this->other, 7, 1, IStreamBase::Exclusive));
        EXPECT_TRUE(this->isFree(this->other, 8, 100, IStreamBase::Exclusive));
    }
}

/// Against a model that knows of each byte which tokens cover it.
TYPED_TEST(RangeLock, ManyTokensOfTwoStreamsBehaveAsAModelOfBytes) {
    constexpr unsigned int kSeed = 20260117;
    constexpr int kBytes = 12;
    SCOPED_TRACE(kSeed);
    struct Token {
        yx::P<yx::IStreamLock> lock;
        int stream;
        int begin;
        int end;
        bool exclusive;
    };
    std::mt19937 random(kSeed);
    std::vector<Token> tokens;
    yx::P<IIOStream> const streams[] = {this->one, this->other};
    int refused = 0;
    for (int round = 0; round < 4000; ++round) {
        if (tokens.size() > 5 || (!tokens.empty() && random() % 3 == 0)) {
            tokens.erase(tokens.begin() + static_cast<int>(random() % tokens.size()));
            continue;
        }
        Token token{nullptr, static_cast<int>(random() % 2), static_cast<int>(random() % kBytes), 0,
                    random() % 3 == 0};
        token.end = token.begin + 1 + static_cast<int>(random() % 4);
        bool const isBlocked = std::ranges::any_of(tokens, [&](Token const& held) {
            return held.stream != token.stream && held.begin < token.end &&
                   token.begin < held.end && (held.exclusive || token.exclusive);
        });
        try {
            token.lock = streams[token.stream]->lockRange(token.begin, token.end - token.begin,
                                                          token.exclusive ? IStreamBase::Exclusive
                                                                          : IStreamBase::Shared);
        } catch (CIOError const& error) {
            ASSERT_EQ(error.getIOCode(), CIOError::AccessDenied) << error.what();
        }
        ASSERT_EQ(!token.lock, isBlocked) << "round " << round;
        refused += isBlocked ? 1 : 0;
        if (token.lock)
            tokens.push_back(token);
    }
    EXPECT_GT(refused, 300);
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
