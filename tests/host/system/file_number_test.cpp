#include "host/system/file_number.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "host/system/file_descriptor.h"
#include "host/system/open_file_limit.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::numberOfFile;

TEST(FileNumber, IsOneForAllNamesOfAFile) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "a";
    std::ofstream(path) << "a";
    std::ofstream(folder.path() / "other") << "a";
    std::filesystem::create_hard_link(path, folder.path() / "hard");
    std::filesystem::create_symlink("a", folder.path() / "soft");
    ASSERT_TRUE(numberOfFile(path));
    EXPECT_EQ(numberOfFile(path), numberOfFile((folder.path() / "hard").string()));
    EXPECT_EQ(numberOfFile(path), numberOfFile((folder.path() / "soft").string()));
    EXPECT_NE(numberOfFile(path), numberOfFile((folder.path() / "other").string()));
    kelm::host::FileDescriptor const file =
        kelm::host::FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(numberOfFile(path), numberOfFile(file.get()));
    EXPECT_FALSE(numberOfFile((folder.path() / "missing").string()));
    EXPECT_FALSE(numberOfFile(-1));
}

TEST(OpenFileLimit, IsRaisedToWhatTheSystemAllows) {
    struct rlimit before = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &before));
    struct rlimit low = before;
    low.rlim_cur = 64;
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &low));
    kelm::host::raiseOpenFileLimit();
    struct rlimit after = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_NOFILE, &after));
    EXPECT_EQ(before.rlim_max, after.rlim_cur);
    ASSERT_EQ(0, ::setrlimit(RLIMIT_NOFILE, &before));
}

} // namespace
