#include <array>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/temp_directory.h"

namespace {

struct Outcome {
    int exitCode;
    std::string output;
};

/// Runs it with `folder` for temporary files.
Outcome runSoak(std::string const& folder, std::string const& options) {
    std::string const command = "TMPDIR='" + folder + "' " KELM_SOAK " " + options + " 2>&1";
    FILE* const pipe = ::popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> buffer;
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        output.append(buffer.data(), count);
    int const status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

class Soak : public testing::Test {
protected:
    Outcome run(std::string const& options) { return runSoak(m_folder.path(), options); }

    std::vector<std::string> leftovers() const {
        std::vector<std::string> paths;
        for (auto const& entry : std::filesystem::directory_iterator(m_folder.path()))
            paths.push_back(entry.path());
        return paths;
    }

private:
    test_support::TempDirectory m_folder;
};

TEST_F(Soak, KeepsItsPromisesOnTwoDisksAndLeavesNothing) {
    Outcome const outcome = run("--disks 2 --seed 20240611");
    EXPECT_EQ(0, outcome.exitCode) << outcome.output;
    EXPECT_THAT(outcome.output, testing::StartsWith("seed 20240611: 2 disks, "));
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

TEST_F(Soak, NoticesADamagedDiskAndKeepsItsFiles) {
    Outcome const outcome = run("--disks 1 --seed 20240611 --tamper");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.output, testing::HasSubstr("VIOLATION on disk 0 (plain)"));
    std::vector<std::string> const kept = leftovers();
    ASSERT_EQ(1u, kept.size());
    EXPECT_THAT(outcome.output, testing::HasSubstr("its files are in " + kept.front() + "\n"));
    EXPECT_TRUE(std::filesystem::exists(kept.front() + "/disk.vmdk"));
}

TEST_F(Soak, WrongOptionsAreRefused) {
    for (char const* const options :
         {"--minutes 1", "--seconds", "--seconds abc", "--disks 2x", "--seed -1"}) {
        Outcome const outcome = run(options);
        EXPECT_EQ(2, outcome.exitCode) << options;
        EXPECT_EQ("usage: soak [--seconds <n>] [--disks <n>] [--seed <n>] [--tamper]\n",
                  outcome.output);
    }
    EXPECT_THAT(leftovers(), testing::IsEmpty());
}

} // namespace
