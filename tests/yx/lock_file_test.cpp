#include "yx/lock_file.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/faulty_file_system.h"
#include "tests/support/hooked_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/yx/file_system_backends.h"
#include "tests/yx/lock_file_fixture.h"

namespace lock_file_test {

namespace {

using file_system_backends::Native;
using lock_file_fixture::catchLockFileError;
using lock_file_fixture::expectLockFileError;
using lock_file_fixture::Held;
using lock_file_fixture::kBothTypes;
using lock_file_fixture::kInUse;
using lock_file_fixture::kMark;
using lock_file_fixture::LockFile;
using lock_file_fixture::take;
using lock_file_fixture::tryTake;
using test_support::Fault;
using test_support::FaultyFileSystem;
using test_support::FileOperation;
using test_support::HookedFileSystem;
using test_support::IgnoredExceptionCapture;
using test_support::Props;
using yx::CIOError;
using yx::CLockFile;
using yx::IStreamBase;
using Kind = FileOperation::Kind;

constexpr char kLocked[] = "The range is locked by another holder.";

TYPED_TEST_SUITE(LockFile, LockFileBackends);

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
    for (std::string const content : {"", kMark, "kelm dead lock: ", "kelm dead lock: 0123"}) {
        for (CLockFile::LockType const type : kBothTypes) {
            this->put(content);
            Held held = this->take(type);
            EXPECT_EQ(this->open()->getLength(), 0) << content;
            EXPECT_FALSE(this->tryTake(CLockFile::Exclusive));
            held.reset();
            EXPECT_FALSE(this->exists());
        }
    }
}

TYPED_TEST(LockFile, WhatAPowerCutLeavesOfAMarkIsTakenOver) {
    std::string const kContents[] = {std::string(1, '\0'), std::string(32, '\0'), "kelm dead lock:",
                                     std::string(kMark, 20) + std::string(12, '\0')};
    for (std::string const& content : kContents) {
        this->put(content);
        CLockFile(&this->files(), this->uri(), CLockFile::Exclusive, false, true);
        EXPECT_FALSE(this->files().fileExists(this->uri()));
    }
}

TYPED_TEST(LockFile, IsRemovedFromAFullDevice) {
    auto const full = yx::makeObject<FaultyFileSystem>(&this->files());
    full->add({.kinds = {Kind::Write}, .sticky = true, .code = CIOError::NoSpace});
    CLockFile(full.get(), this->uri(), CLockFile::Exclusive, false, true);
    EXPECT_FALSE(this->files().fileExists(this->uri()));
}

TYPED_TEST(LockFile, SomebodysFileIsLeftAsItIs) {
    std::string const kContents[] = {"x",
                                     "[metadata]\n",
                                     std::string(77, '\0'),
                                     "kelm dead lick",
                                     std::string(kMark) + "0",
                                     "kelm dead lock: 0123456789abcdeg",
                                     std::string(100000, 'k')};
    for (std::string const& content : kContents) {
        for (CLockFile::LockType const type : kBothTypes) {
            this->put(content);
            for (bool const mayMake : {true, false}) {
                auto const error = catchLockFileError(this->uri(), [&] {
                    CLockFile(&this->files(), this->uri(), type, false, mayMake);
                });
                ASSERT_TRUE(error);
                EXPECT_STREQ(error->what(), "The name of the lock file belongs to another file.");
                EXPECT_EQ(error->getCause(), nullptr);
            }
            EXPECT_EQ(this->get(), content);
        }
    }
}

TYPED_TEST(LockFile, WhatSomebodyWritesIntoTheFileStaysWhenItsHolderLeaves) {
    Held held = this->take(CLockFile::Exclusive);
    this->put("mine");
    held.reset();
    EXPECT_EQ(this->get(), "mine");
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

/// The order of steps that the agreement between processes rests on. What it asks the operating
/// system about a file of that, the file system does not see.
TYPED_TEST(LockFile, TakesPresenceBeforeItLooksAndDiesBeforeItIsDeleted) {
    bool const isNative = std::is_same_v<TypeParam, Native>;
    auto const files = yx::makeObject<test_support::RecordingFileSystem>(&this->files());
    Held held = take(*files, this->uri(), CLockFile::Exclusive);
    std::vector<std::string> expected{"exists disk.vmdk.lock", "open disk.vmdk.lock rw",
                                      "lock disk.vmdk.lock 1+1 shared"};
    if (!isNative)
        expected.emplace_back("get-length disk.vmdk.lock");
    expected.emplace_back("lock disk.vmdk.lock 0+1 exclusive");
    EXPECT_EQ(files->lines(), expected);
    files->clear();
    held.reset();
    expected = {"lock disk.vmdk.lock 1+1 exclusive"};
    if (!isNative)
        expected.emplace_back("get-length disk.vmdk.lock");
    expected.insert(expected.end(), {"seek disk.vmdk.lock 0", "write disk.vmdk.lock 0+32"});
    if (!isNative) {
        expected.insert(expected.end(), {"open disk.vmdk.lock r", "seek disk.vmdk.lock 0",
                                         "read disk.vmdk.lock 0+33", "close disk.vmdk.lock"});
    }
    expected.insert(expected.end(), {"delete disk.vmdk.lock", "close disk.vmdk.lock"});
    EXPECT_EQ(files->lines(), expected);
}

TYPED_TEST(LockFile, ASharedLockIsTakenTogetherWithThePresence) {
    auto const files = yx::makeObject<test_support::RecordingFileSystem>(&this->files());
    Held const other = this->take(CLockFile::Shared);
    Held const held = take(*files, this->uri(), CLockFile::Shared);
    EXPECT_THAT(files->lines({Kind::Lock}), testing::ElementsAre("lock disk.vmdk.lock 0+2 shared"));
}

TYPED_TEST(LockFile, AReaderThatLeavesOthersBehindLeavesThemTheirLock) {
    Held leaver = this->take(CLockFile::Shared);
    Held const other = this->take(CLockFile::Shared);
    auto const stream = this->open();
    leaver.reset();
    EXPECT_TRUE(this->exists());
    EXPECT_EQ(this->get(), "");
    EXPECT_THROW(stream->lockRange(0, 1, IStreamBase::Exclusive), CIOError);
    EXPECT_THROW(stream->lockRange(1, 1, IStreamBase::Exclusive), CIOError);
}

TYPED_TEST(LockFile, WhoHasARemovedFileOpenFindsItDead) {
    Held held = this->take(CLockFile::Shared);
    auto const stream = this->open();
    held.reset();
    EXPECT_FALSE(this->exists());
    std::string content(100, ' ');
    content.resize(static_cast<std::size_t>(stream->readLax(content.data(), 100)));
    EXPECT_THAT(content, testing::MatchesRegex("kelm dead lock: [0-9a-f]{16}"));
    // Its locks go with the last stream of the one who removed it.
    EXPECT_TRUE(stream->lockRange(0, 2, IStreamBase::Exclusive));
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
    for (std::string const leftOver : {"", kMark}) {
        for (CLockFile::LockType const type : kBothTypes) {
            this->put(leftOver);
            Held taken;
            int const count = countOperations(this->files(), [&](yx::IFileSystem& files) {
                taken = take(files, this->uri(), type);
            });
            taken.reset();
            ASSERT_GE(count, 3);
            for (Fault::Effect const effect :
                 {Fault::Effect::Refuse, Fault::Effect::Tear, Fault::Effect::Lie}) {
                for (int nth = 1; nth <= count; ++nth) {
                    this->put(leftOver);
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
    for (Fault::Effect const effect :
         {Fault::Effect::Refuse, Fault::Effect::Tear, Fault::Effect::Lie}) {
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

TYPED_TEST(LockFile, AFailureToLockLeavesNoFileWhateverItsType) {
    int locks = 0;
    auto const files = yx::makeObject<HookedFileSystem>(
        &this->files(), [&](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
            if (operation.kind == Kind::Lock && ++locks == 2)
                throw yx::CError("Broken.", "", -1, yx::CProps(), nullptr);
            proceed();
        });
    auto const error =
        catchLockFileError(this->uri(), [&] { take(*files, this->uri(), CLockFile::Exclusive); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "Cannot take the lock file: Broken.");
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

/// The time may go by for other reasons than a removal: a busy machine, or files far away.
TYPED_TEST(LockFile, AProcessThatStandsStillMeanwhileTakesADeadFileAway) {
    this->put(kMark);
    int openings = 0;
    auto const files = yx::makeObject<test_support::HookedFileSystem>(
        &this->files(), [&openings](auto& operation, auto const& proceed) {
            if (operation.kind == Kind::Open && ++openings == 1) {
                auto const end = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
                while (std::chrono::steady_clock::now() < end)
                    std::this_thread::yield();
            }
            proceed();
        });
    EXPECT_TRUE(tryTake(*files, this->uri(), CLockFile::Exclusive));
    EXPECT_GT(openings, 1);
}

TYPED_TEST(LockFile, ARemovalThatNeverEndsIsAnError) {
    auto const stream = this->open();
    auto const lock = stream->lockRange(1, 1, IStreamBase::Exclusive);
    auto const error = catchLockFileError(this->uri(), [&] { this->take(CLockFile::Shared); });
    ASSERT_TRUE(error);
    EXPECT_STREQ(error->what(), "The lock file is being removed by another program.");
    EXPECT_EQ(error->getCause(), nullptr);
}

} // namespace

} // namespace lock_file_test
