#include <csignal>

#include <nlohmann/json.hpp>
#include <sys/resource.h>
#include <sys/stat.h>

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

class UnreadableNames : public ToolTest {
protected:
    /// Replaces the name of a file in the descriptor "disk.vmdk" by a URI that is no UTF-8, and
    /// gives the file the name that the URI would have in another encoding.
    void rename(std::string const& file) {
        std::string text = readFile("disk.vmdk");
        std::size_t const at = text.find("\"" + file + "\"");
        ASSERT_NE(at, std::string::npos);
        writeFile("disk.vmdk", text.replace(at, file.size() + 2, "\"" + uri() + "\""));
        std::filesystem::rename(path(file), path("d\xC3\xA4.vmdk"));
    }

    std::string uri() const { return "file://" + path("d%E4.vmdk"); }

    std::string words() const {
        return "The URI names no file of the operating system: its path is no UTF-8. (uri: " +
               uri() + ")\n";
    }
};

TEST_F(UnreadableNames, OfExtentsAreRefused) {
    runWell({"create", "disk.vmdk", "--size", "8M", "--split", "4M"});
    rename("disk-s00000.vmdk");
    std::string const other = readFile("d\xC3\xA4.vmdk");
    std::set<std::string> const before = listFiles();
    for (Arguments const& arguments :
         {Arguments{"info", "disk.vmdk"}, Arguments{"map", "disk.vmdk"},
          Arguments{"export", "disk.vmdk", "-"}, Arguments{"convert", "disk.vmdk", "new.vmdk"}}) {
        std::string const line = runBadly(3, arguments);
        EXPECT_NE(line.find(words()), std::string::npos) << arguments.front() << ": " << line;
    }
    EXPECT_NE(run({"check", "disk.vmdk"}).out.find("its path is no UTF-8"), std::string::npos);
    EXPECT_EQ(listFiles(), before);
    EXPECT_TRUE(readFile("d\xC3\xA4.vmdk") == other);
}

TEST_F(UnreadableNames, OfAParentAreRefused) {
    writeFile("image", makeImage(std::size_t{8} << 20, 5));
    runWell({"import", "image", "parent.vmdk"});
    runWell({"child", "parent.vmdk", "disk.vmdk", "--split", "4M"});
    rename("parent.vmdk");
    std::string const other = readFile("d\xC3\xA4.vmdk");
    std::set<std::string> const before = listFiles();
    for (Arguments const& arguments :
         {Arguments{"export", "disk.vmdk", "-"}, Arguments{"flatten", "disk.vmdk"}}) {
        EXPECT_EQ(runBadly(3, arguments), "kelm: " + words()) << arguments.front();
    }
    EXPECT_EQ(listFiles(), before);
    EXPECT_TRUE(readFile("d\xC3\xA4.vmdk") == other);
}

TEST_F(UnreadableNames, OfNewAndOldDisksAreRefused) {
    runWell({"create", "d\xC3\xA4.vmdk", "--size", "8M"});
    std::string const other = readFile("d\xC3\xA4.vmdk");
    for (Arguments const& arguments :
         {Arguments{"create", uri(), "--size", "8M", "--force"}, Arguments{"info", uri()},
          Arguments{"child", uri(), "new.vmdk"}, Arguments{"check", uri()}})
        EXPECT_EQ(runBadly(3, arguments), "kelm: " + words()) << arguments.front();
    EXPECT_EQ(listFiles(), std::set<std::string>{"d\xC3\xA4.vmdk"});
    EXPECT_TRUE(readFile("d\xC3\xA4.vmdk") == other);
}

class HostileRounds : public ToolTest {
protected:
    /// An encrypted disk whose descriptor asks for the most rounds that there can be.
    HostileRounds() {
        writeFile("password", "correct horse\n");
        runWell({"create", "disk.vmdk", "--size", "8M", "--split", "4M", "--encrypt", "--rounds",
                 "10000", "--password-file", "password"});
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
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    for (int const signal : {SIGINT, SIGTERM}) {
        RunningTool tool(folder(), {"info", "disk.vmdk", "--password-file", "pipe", "--max-rounds",
                                    "2147483647"});
        // Once it wants the password, it takes signals for what they are.
        writeFile("pipe", "correct horse\n");
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
