#include "host/system/file_identity.h"

#include <filesystem>
#include <fstream>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>

#include "host/system/file_descriptor.h"
#include "host/system/open_file_limit.h"
#include "tests/support/temp_directory.h"

namespace {

using kelm::host::identifyFile;

TEST(FileIdentity, IsOneForAllNamesOfAFile) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "a";
    std::ofstream(path) << "a";
    std::ofstream(folder.path() / "other") << "a";
    std::filesystem::create_hard_link(path, folder.path() / "hard");
    std::filesystem::create_symlink("a", folder.path() / "soft");
    ASSERT_TRUE(identifyFile(path));
    EXPECT_EQ(identifyFile(path), identifyFile((folder.path() / "hard").string()));
    EXPECT_EQ(identifyFile(path), identifyFile((folder.path() / "soft").string()));
    EXPECT_NE(identifyFile(path), identifyFile((folder.path() / "other").string()));
    kelm::host::FileDescriptor const file =
        kelm::host::FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(identifyFile(path), identifyFile(file.get()));
    EXPECT_FALSE(identifyFile((folder.path() / "missing").string()));
    EXPECT_FALSE(identifyFile(-1));
}

TEST(FileIdentity, BelongsToFilesOfTheSystemAlone) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "a";
    std::ofstream(path) << "a";
    ASSERT_TRUE(identifyFile(folder.uri("a")));
    EXPECT_EQ(identifyFile(path), identifyFile(folder.uri("a")));
    EXPECT_FALSE(identifyFile(folder.uri("missing")));
    EXPECT_FALSE(identifyFile(yx::CURI("mem://" + yx::String::fromUTF8(path))));
}

TEST(FileIdentity, IsAnotherForAFileThatReplacesOneThatIsOpen) {
    test_support::TempDirectory const folder;
    std::string const path = folder.path() / "a";
    std::ofstream(path) << "a";
    kelm::host::FileDescriptor const file =
        kelm::host::FileDescriptor::own(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    std::filesystem::remove(path);
    std::ofstream(path) << "a";
    EXPECT_TRUE(identifyFile(file.get()));
    EXPECT_NE(identifyFile(file.get()), identifyFile(path));
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
