#include "host/disk/file_locks.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "host/store/file_names.h"
#include "tests/support/expect_error.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::FileLock;
using kelm::host::FileLocks;

TEST(FileLocks, AreHeldUntilTheLastReferenceEnds) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "file";
    std::ofstream(path) << "content";
    yx::P<FileLocks> locks = yx::makeObject<FileLocks>();
    ASSERT_TRUE(locks->take(kelm::host::uriFromArgument(path), FileLock::Type::Exclusive));
    { yx::P<FileLocks> const another = locks; }
    EXPECT_FALSE(FileLock::tryTake(path, FileLock::Type::Shared));
    locks.reset();
    EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Shared));
}

TEST(FileLocks, ANewFileIsLockedAndKnownFromItsFirstMoment) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "file";
    yx::P<FileLocks> const locks = yx::makeObject<FileLocks>();
    kelm::host::FileIdentity const made = locks->makeFile(folder.uri("file"));
    EXPECT_EQ(made, kelm::host::identifyFile(path));
    EXPECT_EQ(0U, std::filesystem::file_size(path));
    EXPECT_FALSE(FileLock::tryTake(path, FileLock::Type::Shared));
    // It is open for as long as it is locked, so that no other file can get its number.
    std::filesystem::remove(path);
    std::ofstream(path) << "another";
    EXPECT_NE(made, kelm::host::identifyFile(path));
    EXPECT_TRUE(
        test_support::throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                                    {{"uri", folder.uri("file").toString(true).toStdString()}},
                                    [&] { locks->makeFile(folder.uri("file")); }));
}

TEST(FileLocks, ANewFileStaysLockedWhereItsNameIsLost) {
    test_support::TempDirectory const folder;
    yx::P<FileLocks> const locks = yx::makeObject<FileLocks>();
    locks->makeFile(folder.uri("file"));
    std::filesystem::remove(folder.path() / "file");
    EXPECT_TRUE(locks->take(folder.uri("file"), FileLock::Type::Exclusive));
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::NotFound, "Cannot open the file to lock it: No such file or directory",
        {{"path", (folder.path() / "another").string()}},
        [&] { locks->take(folder.uri("another"), FileLock::Type::Exclusive); }));
}

} // namespace
