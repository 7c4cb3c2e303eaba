#include "tests/support/temp_directory.h"

#include <csignal>
#include <fstream>

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test_support {
namespace {

TEST(TempDirectories, OfTestsThatWereKilledGoWhenTheNextTestsRun) {
    TempDirectory const messages;
    pid_t const id = ::fork();
    ASSERT_GE(id, 0);
    if (id == 0) {
        TempDirectory const directory;
        std::ofstream(directory.path() / "file") << "content";
        std::ofstream(messages.path() / "name") << directory.path().string();
        ::raise(SIGKILL);
    }
    ASSERT_EQ(id, ::waitpid(id, nullptr, 0));
    std::string left;
    std::getline(std::ifstream(messages.path() / "name"), left);
    ASSERT_TRUE(std::filesystem::exists(std::filesystem::path(left) / "file"));

    TempDirectory::removeLeft();
    EXPECT_FALSE(std::filesystem::exists(left));
    EXPECT_TRUE(std::filesystem::exists(messages.path()));
}

} // namespace
} // namespace test_support
