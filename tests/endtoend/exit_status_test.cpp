#include <csignal>

#include <sys/resource.h>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// What scripts go by: each kind of failure has a status of its own.
class ExitStatuses : public ToolTest {
protected:
    ExitStatuses() {
        m_image = makeImage(std::size_t{8} << 20, 51);
        writeFile("image", m_image);
        runWell({"import", "image", "disk.vmdk"});
    }

    std::string m_image;
};

TEST_F(ExitStatuses, DoneIsZeroAndDifferencesAndFindingsAreOne) {
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
    patchFile("image", 0, m_image[0] == 'a' ? "b" : "a");
    EXPECT_EQ(run({"compare", "image", "disk.vmdk"}).status, 1);
    std::filesystem::resize_file(path("disk.vmdk"), 70000);
    EXPECT_EQ(run({"check", "disk.vmdk"}).status, 1);
}

TEST_F(ExitStatuses, WrongUsageIsTwoAndAnyOtherErrorIsThree) {
    runBadly(2, {"info"});
    EXPECT_EQ(runBadly(3, {"create", "disk.vmdk", "--size", "8M"}),
              "kelm: The file exists already. (uri: " + path("disk.vmdk") + ")\n");
}

TEST_F(ExitStatuses, APasswordThatIsWrongOrMissingIsFour) {
    writeFile("right", "right\n");
    writeFile("wrong", "wrong\n");
    runWell({"create", "secret.vmdk", "--size", "8M", "--encrypt", "--rounds", "1000",
             "--password-file", "right"});
    runBadly(4, {"info", "secret.vmdk", "--password-file", "wrong"});
    // Not 8: what is missing is the password.
    runBadly(4, {"info", "secret.vmdk", "--password-file", "missing"});
    runBadly(4, {"info", "secret.vmdk"});
}

TEST_F(ExitStatuses, ADiskInUseIsSix) {
    RunningTool writer(folder(), {"import", "-", "new.vmdk", "--size", "8M"});
    writer.feed(m_image.substr(0, std::size_t{1} << 20));
    std::string const words =
        "kelm: The disk is in use: its lock file is held by another program or another open disk. "
        "(uri: " +
        path("new.vmdk.lock") + ")\n";
    for (Arguments const& command : {Arguments{"info", "new.vmdk"}, Arguments{"check", "new.vmdk"},
                                     Arguments{"flatten", "new.vmdk"}})
        EXPECT_EQ(runBadly(6, command), words);
    writer.feed(m_image.substr(std::size_t{1} << 20));
    EXPECT_EQ(writer.finish().status, 0);
}

TEST_F(ExitStatuses, ALockFileThatCannotBeMadeIsNotADiskInUse) {
    // The name of the disk fits a file's, that of its lock file does not.
    std::string const name = std::string(247, 'n') + ".vmdk";
    std::filesystem::rename(path("disk.vmdk"), path(name));
    runWell({"create", "parent.vmdk", "--size", "8M"});
    std::string const error = runBadly(3, {"rebase", name, "--parent", "parent.vmdk", "--trust"});
    EXPECT_NE(error.find("File name too long"), std::string::npos) << error;
}

TEST_F(ExitStatuses, DamageIsSeven) {
    std::string const disk = readFile("disk.vmdk");
    patchFile("disk.vmdk", 0, "?");
    runBadly(7, {"info", "disk.vmdk"});
    writeFile("disk.vmdk", disk.substr(0, disk.size() / 2));
    runBadly(7, {"export", "disk.vmdk", "restored"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "disk.vmdk.digests", "image"}));
}

TEST_F(ExitStatuses, AFileThatDoesNotExistIsEight) {
    runBadly(8, {"info", "missing.vmdk"});
    runBadly(8, {"import", "missing", "new.vmdk"});
    runBadly(8, {"create", "new.vmdk", "--parent", "missing.vmdk"});
    runBadly(8, {"import", "image", "missing/new.vmdk"});
    runWell({"child", "disk.vmdk", "child.vmdk"});
    std::filesystem::remove(path("disk.vmdk"));
    runBadly(8, {"export", "child.vmdk", "restored"});
}

TEST_F(ExitStatuses, ADeviceThatIsFullIsNine) {
    RunningTool tool(folder(), {"convert", "disk.vmdk", "new.vmdk"}, [] {
        rlimit const limit{rlim_t{1} << 20, rlim_t{1} << 20};
        ::setrlimit(RLIMIT_FSIZE, &limit);
    });
    Outcome const outcome = tool.finish();
    EXPECT_EQ(outcome.status, 9) << outcome.err;
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "disk.vmdk.digests", "image"}));
}

TEST_F(ExitStatuses, AnInterruptionIsTen) {
    for (int const signal : {SIGINT, SIGTERM, SIGHUP}) {
        RunningTool tool(folder(), {"import", "-", "new.vmdk", "--size", "8M"});
        tool.feed(m_image.substr(0, std::size_t{1} << 20));
        tool.signal(signal);
        Outcome const outcome = tool.finish();
        EXPECT_EQ(outcome.status, 10) << outcome.err;
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
    }
}

} // namespace

} // namespace endtoend
