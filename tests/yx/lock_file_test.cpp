#include "yx/lock_file.h"

#include <atomic>
#include <csignal>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include "tests/support/bytes.h"
#include "tests/support/child_process.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/hooked_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/unprivileged_scope.h"
#include "tests/yx/file_system_backends.h"

namespace {

namespace fs = std::filesystem;

using file_system_backends::Memory;
using file_system_backends::Native;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::FileOperation;
using test_support::HookedFileSystem;
using test_support::IgnoredExceptionCapture;
using test_support::Props;
using yx::CIOError;
using yx::CLockFile;
using yx::IIOStream;
using yx::IStreamBase;
using Kind = FileOperation::Kind;
using Held = yx::P<CLockFile>;

constexpr char kName[] = "disk.vmdk.lock";
constexpr char kInUse[] =
    "The disk is in use: its lock file is held by another program or another open disk.";
constexpr char kLocked[] = "The range is locked by another holder.";

constexpr CLockFile::LockType kBothTypes[] = {CLockFile::Shared, CLockFile::Exclusive};

Held take(yx::IFileSystem& files, yx::CURI const& uri, CLockFile::LockType type) {
    return yx::makeObject<CLockFile>(&files, uri, type, false, true);
}

/// Null if another holder is in the way; any other failure is the test's.
Held tryTake(yx::IFileSystem& files, yx::CURI const& uri, CLockFile::LockType type) {
    try {
        return take(files, uri, type);
    } catch (yx::CLockFileError const& error) {
        EXPECT_STREQ(error.what(), kInUse);
        return {};
    }
}

/// What `action` throws; it has to be exactly a `CLockFileError` with "uri" alone.
std::optional<yx::CLockFileError> catchLockFileError(yx::CURI const& uri,
                                                     std::function<void()> const& action) {
    try {
        action();
    } catch (yx::CLockFileError const& error) {
        EXPECT_EQ(typeid(error), typeid(yx::CLockFileError));
        EXPECT_EQ(error.getCode(), -1);
        EXPECT_EQ(error.getDetail(), "");
        EXPECT_EQ(test_support::propsOf(error), (Props{{"uri", uri.toString(true).toStdString()}}));
        return error;
    }
    ADD_FAILURE() << "threw nothing";
    return std::nullopt;
}

/// Expects that message, and a cause that is a `CIOError` of that code and message.
void expectLockFileError(yx::CURI const& uri, std::string const& message, CIOError::Code causeCode,
                         std::string const& causeMessage, std::function<void()> const& action) {
    auto const error = catchLockFileError(uri, action);
    if (!error)
        return;
    EXPECT_EQ(error->getMessage().toStdString(), message);
    auto const* const cause = dynamic_cast<CIOError const*>(error->getCause());
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->getIOCode(), causeCode);
    EXPECT_EQ(cause->getMessage().toStdString(), causeMessage);
}

template <class Backend>
class LockFile : public testing::Test {
protected:
    Held take(CLockFile::LockType type) { return ::take(files(), uri(), type); }
    Held tryTake(CLockFile::LockType type) { return ::tryTake(files(), uri(), type); }
    bool exists() { return files().fileExists(uri()); }

    yx::P<IIOStream> open(IIOStream::Access access = IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files().openFile(uri(), access, &reserved);
    }

    yx::IFileSystem& files() { return *backend.files; }
    yx::CURI uri() const { return backend.uri(kName); }

    /// That nothing is held and nothing is left over that blocks.
    void expectFree() {
        EXPECT_TRUE(tryTake(CLockFile::Exclusive));
        EXPECT_FALSE(exists());
    }

    Backend backend;
};

using Backends = testing::Types<Native, Memory>;
TYPED_TEST_SUITE(LockFile, Backends);

TYPED_TEST(LockFile, IsThereAsLongAsItIsHeld) {
    for (CLockFile::LockType const type : kBothTypes) {
        Held held = this->take(type);
        EXPECT_TRUE(this->exists());
        EXPECT_EQ(this->open()->getLength(), 0);
        held.reset();
        EXPECT_FALSE(this->exists());
    }
}

TYPED_TEST(LockFile, AnExclusiveHolderKeepsAllOthersOut) {
    Held held = this->take(CLockFile::Exclusive);
    for (CLockFile::LockType const type : kBothTypes) {
        expectLockFileError(this->uri(), kInUse, CIOError::AccessDenied, kLocked,
                            [&] { this->take(type); });
        EXPECT_TRUE(this->exists());
    }
    held.reset();
    this->expectFree();
}

TYPED_TEST(LockFile, SharedHoldersCoexistAndKeepExclusiveOnesOut) {
    Held first = this->take(CLockFile::Shared);
    Held second = this->take(CLockFile::Shared);
    expectLockFileError(this->uri(), kInUse, CIOError::AccessDenied, kLocked,
                        [&] { this->take(CLockFile::Exclusive); });
    first.reset();
    EXPECT_TRUE(this->exists());
    EXPECT_FALSE(this->tryTake(CLockFile::Exclusive));
    first = this->take(CLockFile::Shared);
    second.reset();
    EXPECT_TRUE(this->exists());
    first.reset();
    EXPECT_FALSE(this->exists());
    this->expectFree();
}

TYPED_TEST(LockFile, TheCauseOfAConflictTellsTheRange) {
    Held const held = this->take(CLockFile::Exclusive);
    auto const error = catchLockFileError(this->uri(), [&] { this->take(CLockFile::Shared); });
    ASSERT_TRUE(error);
    EXPECT_EQ(test_support::propsOf(*error->getCause()),
              (Props{{"uri", this->uri().toString(true).toStdString()},
                     {"position", "0"},
                     {"length", "1"}}));
}

TYPED_TEST(LockFile, ItsFirstByteIsLockedAsTheTypeSays) {
    Held held = this->take(CLockFile::Exclusive);
    EXPECT_THROW(this->open()->lockRange(0, 1, IStreamBase::Shared), CIOError);
    held.reset();
    held = this->take(CLockFile::Shared);
    EXPECT_TRUE(this->open()->lockRange(0, 1, IStreamBase::Shared));
    EXPECT_THROW(this->open()->lockRange(0, 1, IStreamBase::Exclusive), CIOError);
}

TYPED_TEST(LockFile, AForeignLockOnItsFirstByteIsAConflict) {
    auto const stream = this->open();
    auto lock = stream->lockRange(0, 1, IStreamBase::Exclusive);
    expectLockFileError(this->uri(), kInUse, CIOError::AccessDenied, kLocked,
                        [&] { this->take(CLockFile::Shared); });
    lock.reset();
    this->expectFree();
}

TYPED_TEST(LockFile, StaysInPlaceOnDemand) {
    for (CLockFile::LockType const type : kBothTypes) {
        Held held = yx::makeObject<CLockFile>(&this->files(), this->uri(), type, true, true);
        EXPECT_FALSE(this->tryTake(CLockFile::Exclusive));
        held.reset();
        EXPECT_TRUE(this->exists());
        EXPECT_EQ(this->open()->getLength(), 0);
        this->expectFree();
    }
}

TYPED_TEST(LockFile, IsMadeOnDemandOnly) {
    auto const takeExisting = [&] {
        return yx::makeObject<CLockFile>(&this->files(), this->uri(), CLockFile::Exclusive, false,
                                         false);
    };
    auto const error = catchLockFileError(this->uri(), [&] { takeExisting(); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "The lock file does not exist.");
    EXPECT_EQ(error->getCause(), nullptr);
    EXPECT_FALSE(this->exists());

    this->open();
    Held held = takeExisting();
    EXPECT_FALSE(this->tryTake(CLockFile::Exclusive));
    held.reset();
    EXPECT_FALSE(this->exists());
}

TYPED_TEST(LockFile, AFileThatACrashLeftIsTakenOver) {
    for (long long const length : {0, 1, 4096, 1 << 20, 1 << 21}) {
        for (CLockFile::LockType const type : kBothTypes) {
            this->open()->setLength(length);
            Held held = this->take(type);
            EXPECT_EQ(this->open()->getLength(), 0) << length;
            EXPECT_FALSE(this->tryTake(CLockFile::Exclusive));
            held.reset();
            EXPECT_FALSE(this->exists());
        }
    }
}

TYPED_TEST(LockFile, AHolderWhoseFileWasReplacedLeavesTheNewOneAlone) {
    Held old = this->take(CLockFile::Exclusive);
    this->files().deleteFile(this->uri(), false);
    Held fresh = this->take(CLockFile::Exclusive);
    old.reset();
    EXPECT_TRUE(this->exists());
    EXPECT_FALSE(this->tryTake(CLockFile::Shared));
    fresh.reset();
    EXPECT_FALSE(this->exists());
}

TYPED_TEST(LockFile, AFolderInItsPlaceIsAnError) {
    yx::CURI const folder(this->uri().toString(true) + "/");
    expectLockFileError(folder, "Cannot take the lock file: Cannot open the file: Is a directory",
                        CIOError::AccessDenied, "Cannot open the file: Is a directory", [&] {
                            CLockFile(&this->files(), folder, CLockFile::Exclusive, false, true);
                        });
}

/// The order of steps that the agreement between processes rests on.
TYPED_TEST(LockFile, TakesPresenceBeforeItLooksAndDiesBeforeItIsDeleted) {
    auto const files = yx::makeObject<test_support::RecordingFileSystem>(&this->files());
    Held held = take(*files, this->uri(), CLockFile::Exclusive);
    EXPECT_THAT(files->lines(),
                testing::ElementsAre("exists disk.vmdk.lock", "open disk.vmdk.lock rw",
                                     "lock disk.vmdk.lock 1+1 shared", "get-length disk.vmdk.lock",
                                     "lock disk.vmdk.lock 0+1 exclusive"));
    files->clear();
    held.reset();
    std::vector<std::string> const lines = files->lines();
    ASSERT_EQ(lines.size(), 7U);
    EXPECT_EQ(lines[0], "lock disk.vmdk.lock 1+1 exclusive");
    EXPECT_THAT(lines[1], testing::StartsWith("set-length disk.vmdk.lock "));
    EXPECT_EQ(lines[2], "open disk.vmdk.lock r");
    EXPECT_EQ(lines[3], "get-length disk.vmdk.lock");
    EXPECT_EQ(lines[4], "close disk.vmdk.lock");
    EXPECT_EQ(lines[5], "delete disk.vmdk.lock");
    EXPECT_EQ(lines[6], "close disk.vmdk.lock");
    long long const deadLength = files->entries()[1].operation.length;
    EXPECT_GE(deadLength, 1);
    EXPECT_LE(deadLength, 1024 * 1024);
}

// Failures of the file system.

/// The operations that `action` makes.
int countOperations(yx::IFileSystem& files, std::function<void(yx::IFileSystem&)> const& action) {
    auto const recorder = yx::makeObject<test_support::RecordingFileSystem>(&files);
    action(*recorder);
    return static_cast<int>(recorder->entries().size());
}

test_support::FileOperationKinds const kEveryKind{
    Kind::Open,  Kind::Exists,    Kind::Delete, Kind::GetLength, Kind::Seek, Kind::Read,
    Kind::Write, Kind::SetLength, Kind::Flush,  Kind::Barrier,   Kind::Lock, Kind::Close};

TYPED_TEST(LockFile, AnyFailureWhileItIsTakenIsReportedAndBlocksNobody) {
    for (long long const leftOverLength : {0, 77}) {
        for (CLockFile::LockType const type : kBothTypes) {
            this->open()->setLength(leftOverLength);
            Held taken;
            int const count = countOperations(this->files(), [&](yx::IFileSystem& files) {
                taken = take(files, this->uri(), type);
            });
            taken.reset();
            ASSERT_GE(count, 5);
            for (Fault::Effect const effect : {Fault::Effect::Refuse, Fault::Effect::Lie}) {
                for (int nth = 1; nth <= count; ++nth) {
                    this->open()->setLength(leftOverLength);
                    auto const files = yx::makeObject<FaultyFileSystem>(&this->files());
                    files->add({.kinds = kEveryKind, .nth = nth, .effect = effect});
                    Held held;
                    try {
                        held = take(*files, this->uri(), type);
                    } catch (yx::CLockFileError const& error) {
                        EXPECT_STREQ(error.what(), "Cannot take the lock file: Injected failure.");
                        ASSERT_NE(error.getCause(), nullptr);
                        EXPECT_EQ(error.getCause()->getCode(), CIOError::IOFailure);
                    }
                    EXPECT_EQ(files->hits(), 1);
                    EXPECT_FALSE(held && this->tryTake(CLockFile::Exclusive));
                    held.reset();
                    this->expectFree();
                }
            }
        }
    }
}

TYPED_TEST(LockFile, AnyFailureWhileItIsLeftIsReportedToTheHookAndBlocksNobody) {
    Held counted;
    auto const recorder = yx::makeObject<test_support::RecordingFileSystem>(&this->files());
    counted = take(*recorder, this->uri(), CLockFile::Exclusive);
    recorder->clear();
    counted.reset();
    auto const count = static_cast<int>(recorder->entries().size());
    ASSERT_GE(count, 5);
    for (Fault::Effect const effect : {Fault::Effect::Refuse, Fault::Effect::Lie}) {
        for (int nth = 1; nth <= count; ++nth) {
            IgnoredExceptionCapture const ignored;
            auto const files = yx::makeObject<FaultyFileSystem>(&this->files());
            Held held = take(*files, this->uri(), CLockFile::Exclusive);
            files->add({.kinds = kEveryKind, .nth = nth, .effect = effect});
            held.reset();
            // The streams that it closes report for themselves.
            if (recorder->entries()[static_cast<std::size_t>(nth - 1)].operation.kind !=
                Kind::Close) {
                EXPECT_THAT(ignored.entries(), testing::ElementsAre(IgnoredExceptionCapture::Entry{
                                                   "yx::CLockFile", "Injected failure.", true}))
                    << nth;
            }
            EXPECT_EQ(files->hits(), 1);
            this->expectFree();
        }
    }
}

TYPED_TEST(LockFile, AFailureToLockLeavesNoFile) {
    auto const files = yx::makeObject<FaultyFileSystem>(&this->files());
    files->add({.kinds = {Kind::Lock}, .nth = 2});
    expectLockFileError(this->uri(), "Cannot take the lock file: Injected failure.",
                        CIOError::IOFailure, "Injected failure.",
                        [&] { take(*files, this->uri(), CLockFile::Exclusive); });
    EXPECT_FALSE(this->exists());
}

TYPED_TEST(LockFile, AFileSystemWithoutLocksKeepsNoFileThatWasMadeForIt) {
    std::vector<std::function<void()>> const refusals{
        [] {
            throw CIOError(CIOError::NotSupported, "The stream does not support locking.",
                           yx::CProps(), nullptr);
        },
        [] {
            throw yx::CFileSystemError(
                yx::CFileSystemError::LockingNotSupported,
                yx::CError("The stream does not support locking.", "", -1, yx::CProps(), nullptr));
        }};
    for (std::function<void()> const& refuse : refusals) {
        auto const files = yx::makeObject<HookedFileSystem>(
            &this->files(),
            [&](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
                if (operation.kind == Kind::Lock)
                    refuse();
                proceed();
            });
        for (CLockFile::LockType const type : kBothTypes) {
            auto const error =
                catchLockFileError(this->uri(), [&] { take(*files, this->uri(), type); });
            ASSERT_TRUE(error);
            EXPECT_STREQ(error->what(),
                         "Cannot take the lock file: The stream does not support locking.");
            EXPECT_FALSE(this->exists());

            this->open();
            EXPECT_THROW(take(*files, this->uri(), type), yx::CLockFileError);
            EXPECT_TRUE(this->exists());
            this->files().deleteFile(this->uri(), false);
        }
    }
}

TYPED_TEST(LockFile, AFileThatMayNotBeDeletedStaysAndBlocksNobody) {
    auto const files = yx::makeObject<FaultyFileSystem>(&this->files());
    files->add({.kinds = {Kind::Delete}, .sticky = true, .code = CIOError::AccessDenied});
    for (int i = 0; i < 3; ++i) {
        IgnoredExceptionCapture const ignored;
        Held held = take(*files, this->uri(), CLockFile::Exclusive);
        EXPECT_FALSE(tryTake(*files, this->uri(), CLockFile::Exclusive));
        held.reset();
        EXPECT_TRUE(this->exists());
        EXPECT_EQ(ignored.entries().size(), 1U);
    }
    this->expectFree();
}

TYPED_TEST(LockFile, ARemovalThatNeverEndsIsAnError) {
    auto const stream = this->open();
    auto const lock = stream->lockRange(1, 1, IStreamBase::Exclusive);
    auto const error = catchLockFileError(this->uri(), [&] { this->take(CLockFile::Shared); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "The lock file is being removed by another program.");
    EXPECT_EQ(error->getCause(), nullptr);
}

// Parties that meet. One runs in full between two steps of another, at each place in turn, so every
// order of whole actions against single steps is seen.

/// Runs `action` once, at the `nth` place (from 1) before or behind an operation that goes through
/// it.
class Interruption {
public:
    Interruption(yx::IFileSystem& files, int nth, std::function<void()> action)
        : m_remaining(nth),
          m_action(std::move(action)),
          m_files(yx::makeObject<HookedFileSystem>(
              &files, [this](FileOperation&, HookedFileSystem::Proceed const& proceed) {
                  pass();
                  try {
                      proceed();
                  } catch (std::exception const&) {
                      pass();
                      throw;
                  }
                  pass();
              })) {}

    yx::IFileSystem& files() { return *m_files; }
    bool hasHappened() const { return m_remaining <= 0; }

    /// Counts from here on.
    void restart(int nth) { m_remaining = nth; }

private:
    void pass() {
        if (--m_remaining == 0)
            m_action();
    }

    int m_remaining;
    std::function<void()> m_action;
    yx::P<HookedFileSystem> m_files;
};

/// Like `tryTake`, but also null if the party that this one interrupts is in the way for the moment:
/// then the wait for it would never end, and ends here after some attempts.
Held tryTakeInBetween(yx::IFileSystem& files, yx::CURI const& uri, CLockFile::LockType type) {
    // The holder goes on to use this file system when it leaves.
    auto const attempts = std::make_shared<int>(5);
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

TYPED_TEST_SUITE(LockFileMeeting, Backends);

TYPED_TEST(LockFileMeeting, AHolderLeavesWhileAnotherTakes) {
    for (CLockFile::LockType const leaving : kBothTypes) {
        for (CLockFile::LockType const taking : kBothTypes) {
            bool happened = true;
            for (int nth = 1; happened; ++nth) {
                SCOPED_TRACE(testing::Message()
                             << leaving << " leaves " << taking << " at " << nth);
                Held leaver = this->take(leaving);
                Interruption interruption(this->files(), nth, [&] { leaver.reset(); });
                Held taker = ::tryTake(interruption.files(), this->uri(), taking);
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
                Held leaver = ::take(interruption.files(), this->uri(), leaving);
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
    for (long long const leftOverLength : {-1, 0, 77}) {
        bool happened = true;
        for (int nth = 1; happened; ++nth) {
            SCOPED_TRACE(testing::Message() << "length " << leftOverLength << " at " << nth);
            if (leftOverLength >= 0)
                this->open()->setLength(leftOverLength);
            Held second;
            Interruption interruption(this->files(), nth, [&] {
                second = tryTakeInBetween(this->files(), this->uri(), CLockFile::Exclusive);
            });
            Held first = ::tryTake(interruption.files(), this->uri(), CLockFile::Exclusive);
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
        Held first = ::tryTake(interruption.files(), this->uri(), CLockFile::Exclusive);
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
            Held first = ::tryTake(outerInterruption.files(), this->uri(), CLockFile::Exclusive);
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
        Held first = ::take(interruption.files(), this->uri(), CLockFile::Shared);
        interruption.restart(nth);
        first.reset();
        happened = interruption.hasHappened();
        second.reset();
        EXPECT_FALSE(this->exists());
    }
}

// Rights and processes.

class LockFileProcess : public LockFile<Native> {};

TEST_F(LockFileProcess, AFolderWithoutWriteAccessIsAnErrorForBothTypes) {
    fs::permissions(backend.directory.path(), fs::perms(0755));
    test_support::UnprivilegedScope const unprivileged;
    for (CLockFile::LockType const type : kBothTypes) {
        expectLockFileError(
            uri(), "Cannot take the lock file: Cannot open the file: Permission denied",
            CIOError::AccessDenied, "Cannot open the file: Permission denied", [&] { take(type); });
        EXPECT_FALSE(exists());
    }
}

TEST_F(LockFileProcess, AFileWithoutWriteAccessIsAnErrorForBothTypes) {
    fs::permissions(backend.directory.path(), fs::perms(0777));
    open();
    fs::permissions(backend.directory.path() / kName, fs::perms(0444));
    test_support::UnprivilegedScope const unprivileged;
    for (CLockFile::LockType const type : kBothTypes) {
        expectLockFileError(
            uri(), "Cannot take the lock file: Cannot open the file: Permission denied",
            CIOError::AccessDenied, "Cannot open the file: Permission denied", [&] { take(type); });
        EXPECT_TRUE(exists());
    }
}

TEST_F(LockFileProcess, HoldsAgainstOtherProcessesAndIsGivenBack) {
    for (CLockFile::LockType const type : kBothTypes) {
        test_support::ChildProcess child([&](test_support::Line const& line) {
            Held const held = take(type);
            line.send('h');
            line.receive();
            return 0;
        });
        ASSERT_EQ(child.line().receive(), 'h');
        EXPECT_FALSE(tryTake(CLockFile::Exclusive));
        EXPECT_EQ(tryTake(CLockFile::Shared).get() != nullptr, type == CLockFile::Shared);
        child.line().send('g');
        EXPECT_EQ(child.wait(), 0);
        EXPECT_FALSE(exists());
        expectFree();
    }
}

TEST_F(LockFileProcess, EndsWithAHolderThatIsKilled) {
    for (CLockFile::LockType const type : kBothTypes) {
        test_support::ChildProcess child([&](test_support::Line const& line) {
            Held const held = take(type);
            line.send('h');
            line.receive();
            return 0;
        });
        ASSERT_EQ(child.line().receive(), 'h');
        child.kill();
        EXPECT_TRUE(exists());
        expectFree();
    }
}

/// Kills a child in front of each step of taking and leaving, in turn: on a new file, and on one that
/// a crash left dead.
TEST_F(LockFileProcess, ACrashAtAnyStepBlocksNobody) {
    for (bool const isLeftOver : {false, true}) {
        bool killed = true;
        for (int step = 1; killed; ++step) {
            SCOPED_TRACE(testing::Message() << "left over: " << isLeftOver << " at " << step);
            if (isLeftOver)
                open()->setLength(77);
            test_support::ChildProcess child([&](test_support::Line const&) {
                int const beforeStep = 2 * step - 1;
                Interruption interruption(files(), beforeStep, [] { ::raise(SIGKILL); });
                ::take(interruption.files(), uri(), CLockFile::Exclusive).reset();
                return 0;
            });
            int const exitCode = child.wait();
            killed = exitCode != 0;
            EXPECT_EQ(exitCode, killed ? -1 : 0);
            EXPECT_TRUE(killed || step > 12);
            expectFree();
        }
    }
}

/// What the holders of all processes or threads note about themselves, in memory that they share.
struct Register {
    std::atomic<int> exclusive{0};
    std::atomic<int> shared{0};
    std::atomic<int> taken{0};
    std::atomic<int> refused{0};
    std::atomic<int> violations{0};

    /// Between taking and leaving.
    void note(CLockFile::LockType type) {
        ++taken;
        std::atomic<int>& own = type == CLockFile::Exclusive ? exclusive : shared;
        ++own;
        std::this_thread::yield();
        if (exclusive > (type == CLockFile::Exclusive ? 1 : 0) ||
            (type == CLockFile::Exclusive && shared > 0))
            ++violations;
        --own;
    }
};

void takeAndLeaveOften(yx::IFileSystem& files, yx::CURI const& uri, Register& all,
                       unsigned int seed, int rounds) {
    std::mt19937 random(seed);
    for (int i = 0; i < rounds; ++i) {
        CLockFile::LockType const type =
            random() % 2 == 0 ? CLockFile::Shared : CLockFile::Exclusive;
        Held const held = tryTake(files, uri, type);
        if (held)
            all.note(type);
        else
            ++all.refused;
    }
}

constexpr unsigned int kParties = 4;
constexpr unsigned int kSeed = 6171;
constexpr int kRounds = 300;

TEST_F(LockFileProcess, ManyProcessesNeverHoldItAgainstEachOther) {
    SCOPED_TRACE(kSeed);
    void* const memory = ::mmap(nullptr, sizeof(Register), PROT_READ | PROT_WRITE,
                                MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    auto& all = *new (memory) Register;
    std::vector<test_support::ChildProcess> children;
    for (unsigned int i = 0; i < kParties; ++i) {
        children.emplace_back([&, i](test_support::Line const&) {
            takeAndLeaveOften(files(), uri(), all, kSeed + i, kRounds);
            return testing::Test::HasFailure() ? 1 : 0;
        });
    }
    for (test_support::ChildProcess& child : children)
        EXPECT_EQ(child.wait(), 0);
    EXPECT_EQ(all.violations, 0);
    EXPECT_EQ(all.taken + all.refused, static_cast<int>(kParties) * kRounds);
    EXPECT_GT(all.taken, 0);
    EXPECT_FALSE(exists());
    ::munmap(memory, sizeof(Register));
}

TYPED_TEST(LockFile, ManyThreadsNeverHoldItAgainstEachOther) {
    SCOPED_TRACE(kSeed);
    Register all;
    std::vector<std::thread> threads;
    for (unsigned int i = 0; i < kParties; ++i) {
        threads.emplace_back(
            [&, i] { takeAndLeaveOften(this->files(), this->uri(), all, kSeed + i, kRounds); });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(all.violations, 0);
    EXPECT_GT(all.taken, 0);
    EXPECT_FALSE(this->exists());
}

} // namespace
