#include <array>
#include <cstdio>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

namespace {

struct Outcome {
    int exitCode;
    std::string output;
};

Outcome runSoak(std::string const& options) {
    std::string const command = KELM_SOAK " " + options + " 2>&1";
    FILE* const pipe = ::popen(command.c_str(), "r");
    std::string output;
    std::array<char, 4096> buffer;
    for (std::size_t count = 0; (count = std::fread(buffer.data(), 1, buffer.size(), pipe)) > 0;)
        output.append(buffer.data(), count);
    int const status = ::pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, output};
}

TEST(Soak, KeepsItsPromisesOnTwoDisks) {
    Outcome const outcome = runSoak("--disks 2 --seed 20240611");
    EXPECT_EQ(0, outcome.exitCode) << outcome.output;
    EXPECT_THAT(outcome.output, testing::StartsWith("seed 20240611: 2 disks, "));
}

TEST(Soak, NoticesADamagedDisk) {
    Outcome const outcome = runSoak("--disks 1 --seed 20240611 --tamper");
    EXPECT_EQ(1, outcome.exitCode);
    EXPECT_THAT(outcome.output, testing::HasSubstr("VIOLATION on disk 0 (plain)"));
}

TEST(Soak, WrongOptionsAreRefused) {
    for (char const* const options :
         {"--minutes 1", "--seconds", "--seconds abc", "--disks 2x", "--seed -1"}) {
        Outcome const outcome = runSoak(options);
        EXPECT_EQ(2, outcome.exitCode) << options;
        EXPECT_EQ("usage: soak [--seconds <n>] [--disks <n>] [--seed <n>] [--tamper]\n",
                  outcome.output);
    }
}

} // namespace
