// Parties that meet at a lock file. One runs in full between two steps of another, at each place in
// turn, so every order of whole actions against single steps is seen.

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/hooked_file_system.h"
#include "tests/yx/file_system_backends.h"
#include "tests/yx/lock_file_fixture.h"

namespace lock_file_meeting_test {

namespace {

using lock_file_fixture::Held;
using lock_file_fixture::Interruption;
using lock_file_fixture::kBothTypes;
using lock_file_fixture::kInUse;
using lock_file_fixture::kMark;
using lock_file_fixture::LockFile;
using lock_file_fixture::take;
using lock_file_fixture::tryTake;
using test_support::FileOperation;
using test_support::HookedFileSystem;
using yx::CLockFile;
using Kind = FileOperation::Kind;

/// Like `tryTake`, but also null if the party that this one interrupts is in the way for the
/// moment: then the wait for it would never end, and ends here after some attempts.
Held tryTakeInBetween(yx::IFileSystem& files, yx::CURI const& uri, CLockFile::LockType type) {
    constexpr int kMaxAttempts = 5;
    // The holder goes on to use this file system when it leaves.
    auto const attempts = std::make_shared<int>(kMaxAttempts);
    auto const impatient = yx::makeObject<HookedFileSystem>(
        &files, [attempts](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
            if (operation.kind == Kind::Open && (*attempts)-- == 0)
                throw yx::CError("Gave up.", "", -1, yx::CProps(), nullptr);
            proceed();
        });
    try {
        Held held = take(*impatient, uri, type);
        *attempts = -1;
        return held;
    } catch (yx::CLockFileError const& error) {
        EXPECT_THAT(error.getMessage().toStdString(),
                    testing::AnyOf(kInUse, "Cannot take the lock file: Gave up."));
        return {};
    }
}

/// Locks that are held at once, and what that must look like from outside.
template <class Test>
void expectHeldAlone(Test& test, CLockFile::LockType type) {
    SCOPED_TRACE("held alone");
    EXPECT_TRUE(test.exists());
    EXPECT_FALSE(test.tryTake(CLockFile::Exclusive));
    EXPECT_EQ(test.tryTake(CLockFile::Shared).get() != nullptr, type == CLockFile::Shared);
    EXPECT_TRUE(test.exists());
}

template <class Backend>
class LockFileMeeting : public LockFile<Backend> {
public:
    using LockFile<Backend>::exists;
    using LockFile<Backend>::tryTake;
};

TYPED_TEST_SUITE(LockFileMeeting, LockFileMeetingBackends);

TYPED_TEST(LockFileMeeting, AHolderLeavesWhileAnotherTakes) {
    for (CLockFile::LockType const leaving : kBothTypes) {
        for (CLockFile::LockType const taking : kBothTypes) {
            bool happened = true;
            for (int nth = 1; happened; ++nth) {
                SCOPED_TRACE(testing::Message()
                             << leaving << " leaves " << taking << " at " << nth);
                Held leaver = this->take(leaving);
                Interruption interruption(this->files(), nth, [&] { leaver.reset(); });
                Held taker = lock_file_fixture::tryTake(interruption.files(), this->uri(), taking);
                happened = interruption.hasHappened();
                bool const mayConflict =
                    leaving == CLockFile::Exclusive || taking == CLockFile::Exclusive;
                EXPECT_TRUE(taker || mayConflict);
                leaver.reset();
                if (taker)
                    expectHeldAlone(*this, taking);
                taker.reset();
                EXPECT_FALSE(this->exists());
                this->expectFree();
            }
        }
    }
}

TYPED_TEST(LockFileMeeting, AnotherTakesWhileAHolderLeaves) {
    for (CLockFile::LockType const leaving : kBothTypes) {
        for (CLockFile::LockType const taking : kBothTypes) {
            bool happened = true;
            int successes = 0;
            for (int nth = 1; happened; ++nth) {
                SCOPED_TRACE(testing::Message()
                             << leaving << " leaves " << taking << " at " << nth);
                Held taker;
                Interruption interruption(this->files(), 0, [&] {
                    taker = tryTakeInBetween(this->files(), this->uri(), taking);
                });
                Held leaver = lock_file_fixture::take(interruption.files(), this->uri(), leaving);
                interruption.restart(nth);
                leaver.reset();
                happened = interruption.hasHappened();
                successes += taker ? 1 : 0;
                if (taker)
                    expectHeldAlone(*this, taking);
                taker.reset();
                EXPECT_FALSE(this->exists());
                this->expectFree();
            }
            EXPECT_GE(successes, 1);
        }
    }
}

TYPED_TEST(LockFileMeeting, OneOfTwoTakersGetsIt) {
    for (char const* const leftOver : {static_cast<char const*>(nullptr), "", kMark}) {
        bool happened = true;
        for (int nth = 1; happened; ++nth) {
            SCOPED_TRACE(testing::Message()
                         << "left over: " << (leftOver ? leftOver : "none") << " at " << nth);
            if (leftOver)
                this->put(leftOver);
            Held second;
            Interruption interruption(this->files(), nth, [&] {
                second = tryTakeInBetween(this->files(), this->uri(), CLockFile::Exclusive);
            });
            Held first =
                lock_file_fixture::tryTake(interruption.files(), this->uri(), CLockFile::Exclusive);
            happened = interruption.hasHappened();
            EXPECT_EQ((first ? 1 : 0) + (second ? 1 : 0), 1);
            expectHeldAlone(*this, CLockFile::Exclusive);
            first.reset();
            second.reset();
            EXPECT_FALSE(this->exists());
        }
    }
}

TYPED_TEST(LockFileMeeting, ATakerMeetsALeaverAndAnotherTaker) {
    bool happened = true;
    for (int nth = 1; happened; ++nth) {
        SCOPED_TRACE(nth);
        Held leaver = this->take(CLockFile::Exclusive);
        Held second;
        Interruption interruption(this->files(), nth, [&] {
            leaver.reset();
            second = tryTakeInBetween(this->files(), this->uri(), CLockFile::Exclusive);
        });
        Held first =
            lock_file_fixture::tryTake(interruption.files(), this->uri(), CLockFile::Exclusive);
        happened = interruption.hasHappened();
        leaver.reset();
        EXPECT_LE((first ? 1 : 0) + (second ? 1 : 0), 1);
        if (first || second)
            expectHeldAlone(*this, CLockFile::Exclusive);
        first.reset();
        second.reset();
        EXPECT_FALSE(this->exists());
    }
}

/// Both takers can have opened the file that the leaver then removes.
TYPED_TEST(LockFileMeeting, ATakerMeetsATakerThatMeetsALeaver) {
    bool outerHappened = true;
    for (int outer = 1; outerHappened; ++outer) {
        bool innerHappened = true;
        for (int inner = 1; innerHappened; ++inner) {
            SCOPED_TRACE(testing::Message() << outer << ", " << inner);
            Held leaver = this->take(CLockFile::Exclusive);
            Held second;
            Interruption innerInterruption(this->files(), inner, [&] { leaver.reset(); });
            Interruption outerInterruption(this->files(), outer, [&] {
                second =
                    tryTakeInBetween(innerInterruption.files(), this->uri(), CLockFile::Exclusive);
            });
            Held first = lock_file_fixture::tryTake(outerInterruption.files(), this->uri(),
                                                    CLockFile::Exclusive);
            outerHappened = outerInterruption.hasHappened();
            innerHappened = innerInterruption.hasHappened();
            leaver.reset();
            EXPECT_FALSE(first && second);
            if (first || second)
                expectHeldAlone(*this, CLockFile::Exclusive);
            first.reset();
            second.reset();
            EXPECT_FALSE(this->exists());
        }
    }
}

TYPED_TEST(LockFileMeeting, TwoSharedHoldersLeaveTogether) {
    bool happened = true;
    for (int nth = 1; happened; ++nth) {
        SCOPED_TRACE(nth);
        Held second = this->take(CLockFile::Shared);
        Interruption interruption(this->files(), 0, [&] { second.reset(); });
        Held first = lock_file_fixture::take(interruption.files(), this->uri(), CLockFile::Shared);
        interruption.restart(nth);
        first.reset();
        happened = interruption.hasHappened();
        second.reset();
        EXPECT_FALSE(this->exists());
    }
}

} // namespace

} // namespace lock_file_meeting_test
