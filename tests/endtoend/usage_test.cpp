#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

using Usage = ToolTest;

TEST_F(Usage, WithoutACommandIsWrong) {
    EXPECT_EQ(runBadly(2, {}), "kelm: A subcommand is required (see kelm --help)\n");
}

TEST_F(Usage, VersionIsPrinted) {
    EXPECT_EQ(runWell({"--version"}), "kelm 1.0.0\n");
}

TEST_F(Usage, HelpOfCheckSaysWhatItCannotNotice) {
    std::string const help = runWell({"check", "--help"});
    std::size_t const words = help.find(
        "What it cannot notice:\n"
        "  - without digests: other bytes in a grain that is stored plain, since only compressed "
        "grains\n"
        "    have checksums; grains that both copies of a grain table have lost; a file of the "
        "disk\n"
        "    that was replaced by an older one\n"
        "  - a disk that was replaced by an older one with its digests\n"
        "  - in a disk that is not encrypted: what somebody changed together with the digests\n"
        "  - whether the disk holds what it was made of: 'kelm compare' tells that\n");
    EXPECT_LT(words, help.find("Example:\n  kelm check")) << help;
}

TEST_F(Usage, HelpHasTheTextOfCommandsAndOfTheManual) {
    for (std::string const& command : allCommands())
        EXPECT_EQ(runWell({"help", command}), runWell({command, "--help"}));
    std::string const status = runWell({"help", "exit-status"});
    EXPECT_TRUE(
        status.starts_with("0\n    Done.\n\n1\n    compare found differences, or check found "
                           "something wrong.\n\n2\n    Wrong usage.\n"))
        << status;
    EXPECT_TRUE(
        status.ends_with("\nA command that fails or is interrupted removes the files that it "
                         "made, and\nleaves no lock. SIGINT, SIGTERM and SIGHUP interrupt: "
                         "the command cleans up\nand ends with status 10. A second signal ends "
                         "it at once. If the reader of the\noutput goes away, the status is 3; "
                         "if the output is full, it is 9.\n"))
        << status;
    std::string const overview = runWell({"help"});
    EXPECT_TRUE(overview.starts_with(runWell({"--help"}))) << overview;
    for (std::string const topic : {"disks", "options", "passwords", "exit-status", "examples"}) {
        std::string const text = runWell({"help", topic});
        EXPECT_GT(text.size(), 100U) << topic;
        // Nothing of the page's own language is left.
        EXPECT_EQ(text.find("\n."), std::string::npos) << text;
        EXPECT_EQ(text.find("\\f"), std::string::npos) << text;
        EXPECT_EQ(text.find("\\-"), std::string::npos) << text;
        EXPECT_NE(overview.find(topic), std::string::npos) << overview;
    }
    EXPECT_NE(runBadly(2, {"help", "tea"}).find("There is no help on 'tea', only on: disks, "),
              std::string::npos);
}

TEST_F(Usage, EveryCommandHasHelpWithAnExample) {
    for (std::string const& command : allCommands()) {
        std::string const help = runWell({command, "--help"});
        EXPECT_NE(help.find("Example:\n  kelm " + command), std::string::npos) << help;
    }
}

TEST_F(Usage, BadArgumentsAreToldInOneLineAndMakeNothing) {
    Arguments const cases[] = {
        {"format"},
        {"create"},
        {"create", "disk.vmdk"},
        {"create", "disk.vmdk", "--size", "40X"},
        {"create", "disk.vmdk", "--size", "-1"},
        {"create", "disk.vmdk", "--size", "8M", "--level", "10"},
        {"create", "disk.vmdk", "--size", "8M", "--colour"},
        {"create", "disk.vmdk", "--size", "3T"},
        {"create", "disk.vmdk", "--size", "64M", "--split", "64K"},
        {"create", "disk.vmdk", "--size", "8M", "--password-file", "a", "--password-env", "B"},
        {"import", "-", "disk.vmdk"},
        {"import", "only-one"},
        {"rebase", "disk.vmdk"},
    };
    for (Arguments const& arguments : cases)
        runBadly(2, arguments);
    EXPECT_EQ(listFiles(), std::set<std::string>());
}

TEST_F(Usage, AMissingDiskIsAnErrorOfTheFile) {
    for (std::string const command : {"info", "check", "map", "flatten"}) {
        EXPECT_EQ(runBadly(8, {command, "no.vmdk"}),
                  "kelm: The disk does not exist. (uri: " + path("no.vmdk") + ")\n");
    }
    EXPECT_EQ(listFiles(), std::set<std::string>());
}

TEST_F(Usage, AnExistingFileIsNotReplacedWithoutForce) {
    writeFile("disk.vmdk", "precious");
    EXPECT_EQ(runBadly(3, {"create", "disk.vmdk", "--size", "8M"}),
              "kelm: The file exists already. (uri: " + path("disk.vmdk") + ")\n");
    EXPECT_EQ(readFile("disk.vmdk"), "precious");

    runWell({"create", "disk.vmdk", "--size", "8M", "--force"});
    EXPECT_NE(readFile("disk.vmdk"), "precious");
    EXPECT_EQ(listFiles(), std::set<std::string>{"disk.vmdk"});
}

TEST_F(Usage, ADiskIsNeverWrittenOverItself) {
    runWell({"create", "disk.vmdk", "--size", "8M"});
    std::string const before = readFile("disk.vmdk");
    runBadly(2, {"convert", "disk.vmdk", "./disk.vmdk", "--force"});
    runBadly(2, {"export", "disk.vmdk", "disk.vmdk", "--force"});
    runBadly(2, {"import", "disk.vmdk", "disk.vmdk", "--force"});
    runBadly(2, {"child", "disk.vmdk", "disk.vmdk", "--force"});
    runBadly(2, {"map", "disk.vmdk", "--svg", "disk.vmdk", "--force"});
    EXPECT_EQ(readFile("disk.vmdk"), before);
}

} // namespace

} // namespace endtoend
