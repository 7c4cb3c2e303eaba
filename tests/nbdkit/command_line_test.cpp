#include "integrations/nbdkit/command_line.h"

#include <gtest/gtest.h>

namespace kelm::nbd {

namespace {

TEST(CommandLine, OfAServerForWritingIsKnownAsSuch) {
    EXPECT_FALSE(mayOpenReadOnly({"nbdkit", "kelm", "disk.vmdk"}));
    EXPECT_FALSE(
        mayOpenReadOnly({"/usr/sbin/nbdkit", "-f", "-U", "/tmp/server.sock", "-P",
                         "/run/server.pid", "--run", "fio -r", "kelm", "file=reader-r.vmdk"}));
    EXPECT_FALSE(mayOpenReadOnly({"nbdkit", "--run=nbdinfo -r", "kelm", "disk.vmdk"}));
}

TEST(CommandLine, MayMeanReadOnlyInEachSpellingOfTheOption) {
    for (char const* const option : {"-r", "-fr", "-rf", "--readonly", "--read-only", "--read"})
        EXPECT_TRUE(mayOpenReadOnly({"nbdkit", option, "kelm", "disk.vmdk"})) << option;
    EXPECT_TRUE(mayOpenReadOnly({"nbdkit", "kelm", "disk.vmdk", "-r"}));
}

TEST(CommandLine, MayMeanReadOnlyWithAFilter) {
    EXPECT_TRUE(mayOpenReadOnly({"nbdkit", "--filter=cow", "kelm", "disk.vmdk"}));
    EXPECT_TRUE(mayOpenReadOnly({"nbdkit", "--filter", "cow", "kelm", "disk.vmdk"}));
}

TEST(CommandLine, MayMeanReadOnlyIfTheSystemDoesNotTell) {
    EXPECT_TRUE(mayOpenReadOnly({}));
}

TEST(CommandLine, OfThisProcessStartsWithItsName) {
    std::vector<std::string> const arguments = readCommandLine();
    ASSERT_FALSE(arguments.empty());
    EXPECT_NE(arguments.front().find("test_nbdkit"), std::string::npos) << arguments.front();
}

} // namespace

} // namespace kelm::nbd
