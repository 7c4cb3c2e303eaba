#include <regex>

#include <unistd.h>

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/terminal_play.h"

namespace endtoend {

namespace {

using test_support::Dialogue;
using test_support::TerminalPlay;

class Terminal : public ToolTest {
protected:
    /// Runs the program on a terminal of its own.
    TerminalPlay play(Arguments const& arguments, Dialogue const& dialogue = {}) const {
        std::vector<char*> words{const_cast<char*>("kelm")};
        for (std::string const& argument : arguments)
            words.push_back(const_cast<char*>(argument.c_str()));
        words.push_back(nullptr);
        auto const becomeTool = [&] {
            if (::chdir(folder().c_str()) == 0)
                ::execv(KELM_TOOL, words.data());
            return 127;
        };
        return test_support::playOnTerminal(becomeTool, dialogue);
    }

    void makeEncryptedDisk() const {
        writeFile("password", "secret\n");
        runWell(
            {"create", "disk.vmdk", "--size", "8M", "--encrypt", "--password-file", "password"});
    }
};

TEST_F(Terminal, PasswordIsAskedForWithoutEcho) {
    makeEncryptedDisk();
    TerminalPlay const right =
        play({"info", "disk.vmdk"}, {{"Password of disk.vmdk: ", "secret\n"}});
    EXPECT_EQ(right.status, 0) << right.shown;
    EXPECT_EQ(right.shown.find("secret"), std::string::npos) << right.shown;
    EXPECT_NE(right.shown.find("encrypted"), std::string::npos) << right.shown;

    TerminalPlay const wrong =
        play({"check", "disk.vmdk"}, {{"Password of disk.vmdk: ", "sekret\n"}});
    EXPECT_EQ(wrong.status, 4) << wrong.shown;
    EXPECT_NE(wrong.shown.find("kelm: Specified VMDK encryption password is not correct."),
              std::string::npos)
        << wrong.shown;
}

TEST_F(Terminal, PasswordOfANewDiskIsAskedForTwice) {
    Arguments const create{"create", "disk.vmdk", "--size", "8M", "--encrypt"};
    TerminalPlay const differs =
        play(create, {{"New password: ", "secret\n"}, {"New password again: ", "sekret\n"}});
    EXPECT_EQ(differs.status, 4) << differs.shown;
    EXPECT_NE(differs.shown.find("kelm: The two passwords differ."), std::string::npos)
        << differs.shown;
    EXPECT_EQ(listFiles(), std::set<std::string>());

    TerminalPlay const equal =
        play(create, {{"New password: ", "secret\n"}, {"New password again: ", "secret\n"}});
    EXPECT_EQ(equal.status, 0) << equal.shown;
    EXPECT_EQ(runBadly(4, {"info", "disk.vmdk"}),
              "kelm: There is no terminal to ask for the password on.\n");
}

TEST_F(Terminal, InterruptingThePromptIsAnInterruption) {
    makeEncryptedDisk();
    // The terminal turns this character into the signal.
    TerminalPlay const stopped = play({"info", "disk.vmdk"}, {{"Password of disk.vmdk: ", "\x03"}});
    EXPECT_EQ(stopped.status, 10) << stopped.shown;
    EXPECT_NE(stopped.shown.find("kelm: Cancelled."), std::string::npos) << stopped.shown;
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "password"}));
}

TEST_F(Terminal, LongWorkShowsABarThatGoesAway) {
    writeFile("image", makeImage(std::size_t{8} << 20, 41));
    TerminalPlay const imported = play({"import", "image", "disk.vmdk"});
    EXPECT_EQ(imported.status, 0);
    EXPECT_NE(imported.shown.find("\rimport 100% [##############################] "),
              std::string::npos)
        << imported.shown;
    std::string const clearing = "\r\x1b[K";
    std::size_t const end = imported.shown.rfind(clearing) + clearing.size();
    std::regex const summary("kelm: import took [0-9.]+ s, .*/s\r\nkelm: read 8.0 MiB, stored "
                             ".*, skipped .* that are zeros or the parent's, 0 warnings\r\n");
    EXPECT_TRUE(std::regex_match(imported.shown.substr(end), summary)) << imported.shown;
    EXPECT_EQ(play({"import", "image", "disk.vmdk", "--force", "--quiet"}).shown, "");
}

TEST_F(Terminal, FindingsStandOnLinesOfTheirOwn) {
    writeFile("image", makeImage(std::size_t{8} << 20, 42));
    runWell({"import", "image", "disk.vmdk", "--split", "4M"});
    std::filesystem::remove(path("disk-s00001.vmdk"));
    TerminalPlay const checked = play({"check", "disk.vmdk"});
    EXPECT_EQ(checked.status, 1);
    std::size_t const finding = checked.shown.find(path("disk-s00001.vmdk") + ": grains ");
    ASSERT_NE(finding, std::string::npos) << checked.shown;
    std::string const before = checked.shown.substr(0, finding);
    EXPECT_TRUE(before.ends_with("\n") || before.ends_with("\r\x1b[K")) << checked.shown;
}

} // namespace

} // namespace endtoend
