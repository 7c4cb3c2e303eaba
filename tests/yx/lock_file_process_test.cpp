// Lock files between processes and threads, with the rights that a process has.

#include <atomic>
#include <csignal>
#include <filesystem>
#include <new>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <sys/mman.h>

#include "tests/support/child_process.h"
#include "tests/support/unprivileged_scope.h"
#include "tests/yx/file_system_backends.h"
#include "tests/yx/lock_file_fixture.h"

namespace {

namespace fs = std::filesystem;

using lock_file_fixture::expectLockFileError;
using lock_file_fixture::Held;
using lock_file_fixture::Interruption;
using lock_file_fixture::kBothTypes;
using lock_file_fixture::kMark;
using lock_file_fixture::kName;
using lock_file_fixture::LockFile;
using lock_file_fixture::take;
using lock_file_fixture::tryTake;
using yx::CIOError;
using yx::CLockFile;

class LockFileProcess : public LockFile<file_system_backends::Native> {};

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

/// Kills a child in front of each step of taking and leaving, in turn: on a new file, and on one
/// that a crash left dead.
TEST_F(LockFileProcess, ACrashAtAnyStepBlocksNobody) {
    for (bool const isLeftOver : {false, true}) {
        bool killed = true;
        for (int step = 1; killed; ++step) {
            SCOPED_TRACE(testing::Message() << "left over: " << isLeftOver << " at " << step);
            if (isLeftOver)
                put(kMark);
            test_support::ChildProcess child([&](test_support::Line const&) {
                int const beforeStep = 2 * step - 1;
                Interruption interruption(files(), beforeStep, [] { ::raise(SIGKILL); });
                ::take(interruption.files(), uri(), CLockFile::Exclusive).reset();
                return 0;
            });
            int const exitCode = child.wait();
            killed = exitCode != 0;
            EXPECT_EQ(exitCode, killed ? -1 : 0);
            EXPECT_TRUE(killed || step > 9);
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

template <class Backend>
class LockFileThread : public LockFile<Backend> {};

TYPED_TEST_SUITE(LockFileThread, LockFileBackends);

TYPED_TEST(LockFileThread, ManyNeverHoldItAgainstEachOther) {
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
