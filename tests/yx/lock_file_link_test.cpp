// Symbolic links at the name of a lock file. It is made and removed at the name itself.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/yx/file_system_backends.h"
#include "tests/yx/lock_file_fixture.h"

namespace {

namespace fs = std::filesystem;

using lock_file_fixture::expectLockFileError;
using lock_file_fixture::Held;
using lock_file_fixture::kBothTypes;
using lock_file_fixture::kMark;
using lock_file_fixture::kName;
using test_support::fromText;
using test_support::readFile;
using test_support::toText;
using test_support::writeFile;
using yx::CLockFile;

class LockFileLink : public lock_file_fixture::LockFile<file_system_backends::Native> {
protected:
    fs::path const folder = backend.directory.path();
};

TEST_F(LockFileLink, ALinkAtItsNameIsNotFollowed) {
    for (char const* const target : {"notes.txt", "empty", "dead", "none"}) {
        writeFile(files(), backend.uri("notes.txt"), fromText("notes"));
        writeFile(files(), backend.uri("empty"), {});
        writeFile(files(), backend.uri("dead"), fromText(kMark));
        fs::create_symlink(target, folder / kName);
        for (CLockFile::LockType const type : kBothTypes) {
            expectLockFileError(uri(), "The name of the lock file belongs to a symbolic link.",
                                yx::CIOError::NotAllowed, "The file is a symbolic link.",
                                [&] { take(type); });
        }
        EXPECT_EQ(toText(readFile(files(), backend.uri("notes.txt"))), "notes");
        EXPECT_EQ(toText(readFile(files(), backend.uri("dead"))), kMark);
        EXPECT_TRUE(fs::exists(folder / "empty"));
        EXPECT_FALSE(fs::exists(folder / "none"));
        fs::remove(folder / kName);
    }
}

TEST_F(LockFileLink, ALinkThatComesToItsNameMeanwhileStays) {
    writeFile(files(), backend.uri("notes.txt"), fromText("notes"));
    Held held = take(CLockFile::Exclusive);
    fs::rename(folder / kName, folder / "moved");
    fs::create_symlink("moved", folder / kName);
    held.reset();
    EXPECT_TRUE(fs::is_symlink(folder / kName));
    EXPECT_TRUE(fs::exists(folder / "moved"));
}

} // namespace
