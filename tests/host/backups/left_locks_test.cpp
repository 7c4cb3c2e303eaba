#include "host/backups/left_locks.h"

#include <filesystem>
#include <fstream>

#include <gtest/gtest.h>

#include "kelm/kelm.h"
#include "tests/support/temp_directory.h"
#include "yx/lock_file.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace left_locks_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::removeLeftLock;
using kelm::host::removeLeftLocks;

class LeftLocksTest : public ::testing::Test {
protected:
    void make(std::string const& name, std::string const& content = "") const {
        fs::create_directories((folder.path() / name).parent_path());
        std::ofstream(folder.path() / name) << content;
    }

    bool exists(std::string const& name) const { return fs::exists(folder.path() / name); }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(LeftLocksTest, OfDisksThatAreGoneGo) {
    make("gone.vmdk.lock");
    make("below/gone.vmdk.lock", "kelm dead lock: 0123");
    removeLeftLocks(files.get(), {folder.uri()});
    EXPECT_FALSE(exists("gone.vmdk.lock"));
    EXPECT_FALSE(exists("below/gone.vmdk.lock"));
}

TEST_F(LeftLocksTest, OfDisksThatAreThereStay) {
    make("disk.vmdk", "content");
    make("disk.vmdk.lock");
    removeLeftLock(files.get(), folder.uri("disk.vmdk"));
    removeLeftLocks(files.get(), {folder.uri()});
    EXPECT_TRUE(exists("disk.vmdk.lock"));
}

TEST_F(LeftLocksTest, ThatSomebodyHoldsStay) {
    yx::CLockFile const lock(files.get(), folder.uri("new.vmdk.lock"), yx::CLockFile::Shared, false,
                             true);
    removeLeftLock(files.get(), folder.uri("new.vmdk"));
    EXPECT_TRUE(exists("new.vmdk.lock"));
}

TEST_F(LeftLocksTest, OfOthersStay) {
    make("apt.lock");
    make("letter.vmdk.lock", "Dear reader");
    removeLeftLocks(files.get(), {folder.uri()});
    EXPECT_TRUE(exists("apt.lock"));
    EXPECT_TRUE(exists("letter.vmdk.lock"));
}

TEST_F(LeftLocksTest, NoneIsNoneToTakeAway) {
    removeLeftLock(files.get(), folder.uri("disk.vmdk"));
    EXPECT_TRUE(fs::is_empty(folder.path()));
}

} // namespace
} // namespace left_locks_test
} // namespace test_support
