#include "host/system/file_lock.h"

#include <filesystem>

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/expect_error.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::FileLock;

class FileLockTest : public testing::Test {
protected:
    void SetUp() override { makeFile(path); }

    static void makeFile(std::string const& name) {
        FILE* const file = std::fopen(name.c_str(), "w");
        ASSERT_NE(nullptr, file);
        std::fclose(file);
    }

    static testing::AssertionResult isInUse(std::string const& name, FileLock::Type type) {
        return test_support::throwsIOError(yx::CIOError::AccessDenied, "The file is in use.",
                                           {{"path", name}}, [&] { FileLock::take(name, type); });
    }

    test_support::TempDirectory directory;
    std::string path = (directory.path() / "disk.vmdk").string();
};

TEST_F(FileLockTest, SharedLocksStandBesideEachOther) {
    FileLock const first = FileLock::take(path, FileLock::Type::Shared);
    FileLock const second = FileLock::take(path, FileLock::Type::Shared);
    EXPECT_TRUE(first.isHeld());
    EXPECT_TRUE(second.isHeld());
    EXPECT_TRUE(isInUse(path, FileLock::Type::Exclusive));
}

TEST_F(FileLockTest, AnExclusiveLockStandsAlone) {
    FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
    EXPECT_TRUE(isInUse(path, FileLock::Type::Shared));
    EXPECT_TRUE(isInUse(path, FileLock::Type::Exclusive));
}

TEST_F(FileLockTest, EndsWithItsObject) {
    {
        FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
        EXPECT_TRUE(lock.isHeld());
    }
    EXPECT_TRUE(FileLock::take(path, FileLock::Type::Exclusive).isHeld());
}

TEST_F(FileLockTest, MovesWithItsObject) {
    FileLock held;
    EXPECT_FALSE(held.isHeld());
    {
        FileLock lock = FileLock::take(path, FileLock::Type::Exclusive);
        held = std::move(lock);
    }
    EXPECT_TRUE(isInUse(path, FileLock::Type::Shared));
}

TEST_F(FileLockTest, IsTheFilesWhateverItsName) {
    std::string const hardLink = (directory.path() / "hard.vmdk").string();
    std::string const symbolicLink = (directory.path() / "soft.vmdk").string();
    std::filesystem::create_hard_link(path, hardLink);
    std::filesystem::create_symlink(path, symbolicLink);
    FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
    EXPECT_TRUE(isInUse(hardLink, FileLock::Type::Shared));
    EXPECT_TRUE(isInUse(symbolicLink, FileLock::Type::Shared));
}

TEST_F(FileLockTest, ReachesBehindTheEndOfTheFile) {
    FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
    std::filesystem::resize_file(path, 1 << 20);
    EXPECT_TRUE(isInUse(path, FileLock::Type::Shared));
}

TEST_F(FileLockTest, IsNotLostWhenAnotherDescriptorOfTheFileIsClosed) {
    FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
    makeFile(path);
    EXPECT_TRUE(isInUse(path, FileLock::Type::Shared));
}

TEST_F(FileLockTest, OfAnotherProcessIsInTheWayUntilThatEnds) {
    int ready[2];
    int end[2];
    ASSERT_EQ(0, ::pipe(ready));
    ASSERT_EQ(0, ::pipe(end));
    pid_t const child = ::fork();
    ASSERT_NE(-1, child);
    char byte = 0;
    if (child == 0) {
        FileLock const lock = FileLock::take(path, FileLock::Type::Exclusive);
        bool const told = ::write(ready[1], &byte, 1) == 1 && ::read(end[0], &byte, 1) == 1;
        ::_exit(told ? 0 : 1);
    }
    ASSERT_EQ(1, ::read(ready[0], &byte, 1));
    EXPECT_TRUE(isInUse(path, FileLock::Type::Shared));
    ASSERT_EQ(1, ::write(end[1], &byte, 1));
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_TRUE(FileLock::take(path, FileLock::Type::Exclusive).isHeld());
    for (int const descriptor : {ready[0], ready[1], end[0], end[1]})
        ::close(descriptor);
}

TEST_F(FileLockTest, AMissingFileIsNotFound) {
    std::string const missing = (directory.path() / "missing.vmdk").string();
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::NotFound, "Cannot open the file to lock it: No such file or directory",
        {{"path", missing}}, [&] { FileLock::take(missing, FileLock::Type::Shared); }));
}

TEST_F(FileLockTest, WhatIsNoRegularFileIsNotLocked) {
    EXPECT_FALSE(FileLock::take("/dev/null", FileLock::Type::Exclusive).isHeld());
    std::string const pipe = (directory.path() / "pipe").string();
    ASSERT_EQ(0, ::mkfifo(pipe.c_str(), 0600));
    EXPECT_FALSE(FileLock::take(pipe, FileLock::Type::Shared).isHeld());
}

} // namespace
