#include <csignal>

#include <nlohmann/json.hpp>
#include <sys/resource.h>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

using HostileNames = ToolTest;

constexpr char kHostileName[] = "a\x1b[2J\xc2\x9b.vmdk";

TEST_F(HostileNames, AreEscapedByEveryCommandThatPrintsThem) {
    EXPECT_EQ(runBadly(8, {"info", "a\nkelm: all is well"}),
              "kelm: The disk does not exist. (uri: " + path("a\\nkelm: all is well") + ")\n");
    std::string const printed = path("a\\x1b[2J\\u{9b}.vmdk");
    EXPECT_EQ(runBadly(2, {"create", "disk.vmdk", "--a\nb\x1b"}).find('\x1b'), std::string::npos);

    runWell({"create", kHostileName, "--size", "8M", "--compressed"});
    std::string const info = runWell({"info", kHostileName});
    EXPECT_EQ(info.rfind("disk:         " + printed + "\n", 0), 0u) << info;
    EXPECT_NE(info.find("files:        " + printed + ", "), std::string::npos) << info;

    std::filesystem::resize_file(path(kHostileName), readFile(kHostileName).size() - 512);
    std::string const findings = run({"check", kHostileName}).out;
    EXPECT_NE(findings.find(printed + ": the trail has no footer marker\n"), std::string::npos)
        << findings;
    EXPECT_EQ(findings.find('\x1b'), std::string::npos) << findings;
}

TEST_F(HostileNames, StayThemselvesInJSON) {
    runWell({"create", kHostileName, "--size", "8M"});
    for (Arguments const& arguments :
         {Arguments{"info", kHostileName, "--json"}, Arguments{"map", kHostileName, "--json"}}) {
        std::string const text = runWell(arguments);
        EXPECT_EQ(text.find("\xc2\x9b"), std::string::npos) << text;
        EXPECT_EQ(nlohmann::json::parse(text)["file"], path(kHostileName));
    }
}

TEST_F(HostileNames, OfADescriptorReachNoTerminal) {
    runWell({"create", "disk.vmdk", "--size", "8M", "--split", "4M"});
    std::string text = readFile("disk.vmdk");
    std::string const createType = "twoGbMaxExtentSparse";
    text.replace(text.find(createType), createType.size(), "kind\x1b[31m\xc2\x9b\x7f\t!");
    writeFile("disk.vmdk", text);
    std::string const words =
        "VMDK disk has an unsupported create type: 'kind\\x1b[31m\\u{9b}\\x7f\\t!'.";
    EXPECT_EQ(runBadly(7, {"info", "disk.vmdk"}),
              "kelm: " + words + " (uri: " + path("disk.vmdk") + ")\n");
    EXPECT_EQ(run({"check", "disk.vmdk"}).out,
              path("disk.vmdk") + ": the disk cannot be opened: " + words + "\n1 finding\n");
}

class HostileRounds : public ToolTest {
protected:
    /// An encrypted disk whose descriptor asks for the most rounds that there can be.
    HostileRounds() {
        writeFile("password", "correct horse\n");
        runWell({"create", "disk.vmdk", "--size", "8M", "--split", "4M", "--encrypt",
                 "--password-file", "password"});
        std::string text = readFile("disk.vmdk");
        std::string const rounds = ":10000\n";
        text.replace(text.find(rounds), rounds.size(), ":2147483647\n");
        writeFile("disk.vmdk", text);
    }
};

TEST_F(HostileRounds, AreRefusedUnlessTheyAreAskedFor) {
    for (std::string const command : {"info", "check", "map"}) {
        EXPECT_EQ(runBadly(3, {command, "disk.vmdk", "--password-file", "password"}),
                  "kelm: The key of the disk takes 2147483647 rounds to derive; at most 10000000 "
                  "are allowed. A larger --max-rounds allows more.\n");
        EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
    }
    runBadly(2, {"info", "disk.vmdk", "--max-rounds", "0"});
}

TEST_F(HostileRounds, EndAtTheFirstSignal) {
    for (int const signal : {SIGINT, SIGTERM}) {
        RunningTool tool(folder(), {"info", "disk.vmdk", "--password-file", "password",
                                    "--max-rounds", "2147483647"});
        waitForFile(tool, "disk.vmdk.lock");
        tool.signal(signal);
        Outcome const outcome = tool.finish();
        EXPECT_EQ(outcome.status, 10);
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
        EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
    }
}

using FileSizeLimit = ToolTest;

TEST_F(FileSizeLimit, IsAnErrorAndLeavesNothing) {
    writeFile("image", makeImage(std::size_t{8} << 20, 16));
    std::set<std::string> const before = listFiles();
    for (Arguments const& arguments : {Arguments{"import", "image", "disk.vmdk"},
                                       Arguments{"import", "image", "disk.vmdk", "--compressed"}}) {
        RunningTool tool(folder(), arguments, [] {
            rlimit const limit{rlim_t{1} << 20, rlim_t{1} << 20};
            ::setrlimit(RLIMIT_FSIZE, &limit);
        });
        Outcome const outcome = tool.finish();
        EXPECT_EQ(outcome.status, 9);
        EXPECT_NE(outcome.err.find("File too large"), std::string::npos) << outcome.err;
        EXPECT_EQ(listFiles(), before);
    }
}

} // namespace

} // namespace endtoend
