#include <csignal>
#include <cstdlib>
#include <ctime>
#include <random>

#include <sys/wait.h>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace interruption_test {

namespace {

constexpr std::size_t kImageBytes = std::size_t{16} << 20;
constexpr std::size_t kPipeBytes = std::size_t{1} << 20;
constexpr unsigned int kSeed = 20240917;
constexpr int kRounds = 6;

class Interruption : public ToolTest {
protected:
    /// The end of an interrupted run: an error that says so, and nothing new in the folder; or it
    /// was done before the signal came.
    void expectCleanEnd(Outcome const& outcome, std::set<std::string> const& filesBefore) {
        if (outcome.status == 0)
            return;
        EXPECT_EQ(outcome.status, 10) << outcome.err;
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
        EXPECT_EQ(listFiles(), filesBefore);
    }

    /// Lets up to 50 ms pass: where the run then is nobody knows, and it must not matter.
    void passRandomMoment() {
        timespec const moment{0, static_cast<long>(m_random() % 50'000'000)};
        ::nanosleep(&moment, nullptr);
    }

    std::mt19937 m_random{kSeed};
};

TEST_F(Interruption, ImportFromAPipeLeavesNothing) {
    std::string const image = makeImage(kImageBytes, 9);
    for (Arguments const& options :
         {Arguments{}, Arguments{"--compressed"}, Arguments{"--split", "4M"}}) {
        for (int const signal : {SIGINT, SIGTERM}) {
            RunningTool tool(folder(),
                             joined({{"import", "-", "disk.vmdk", "--size", "16M"}, options}));
            // More than a pipe holds, so that the program runs, and short of the end, so that it
            // still waits when the signal comes.
            tool.feed(image.substr(0, kPipeBytes + m_random() % (kImageBytes - kPipeBytes)));
            tool.signal(signal);
            Outcome const outcome = tool.finish();
            EXPECT_EQ(outcome.status, 10) << outcome.err;
            EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
            EXPECT_EQ(listFiles(), std::set<std::string>());
        }
    }
}

TEST_F(Interruption, ExportToAPipeLeavesNoLock) {
    writeFile("image", makeImage(kImageBytes, 10));
    runWell({"import", "image", "disk.vmdk", "--compressed"});
    std::set<std::string> const before = listFiles();
    for (int round = 0; round < kRounds; ++round) {
        RunningTool tool(folder(), {"export", "disk.vmdk", "-"});
        tool.readOutput(1 + m_random() % kImageBytes);
        tool.signal(SIGTERM);
        expectCleanEnd(tool.finish(), before);
        EXPECT_EQ(listFiles(), before);
    }
}

TEST_F(Interruption, EveryLongCommandLeavesNothingHalf) {
    writeFile("image", makeImage(kImageBytes, 11));
    runWell({"import", "image", "disk.vmdk"});
    runWell({"import", "image", "packed.vmdk", "--compressed"});
    std::set<std::string> const before = listFiles();
    Arguments const commands[] = {
        {"create", "new.vmdk", "--size", "200G", "--split", "1G"},
        {"import", "image", "new.vmdk"},
        {"import", "image", "new.vmdk", "--compressed"},
        {"import", "image", "new.vmdk", "--parent", "disk.vmdk", "--split", "4M"},
        {"export", "disk.vmdk", "new.img"},
        {"export", "packed.vmdk", "new.img"},
        {"convert", "disk.vmdk", "new.vmdk", "--compressed", "--split", "4M"},
        {"convert", "packed.vmdk", "new.vmdk"},
        {"compare", "image", "disk.vmdk"},
        {"compare", "packed.vmdk", "disk.vmdk"},
        {"check", "disk.vmdk"},
        {"check", "packed.vmdk"},
        {"map", "disk.vmdk"},
        {"map", "disk.vmdk", "--svg", "new.svg", "--json"},
        {"info", "disk.vmdk", "--space"},
    };
    for (Arguments const& arguments : commands) {
        for (int round = 0; round < kRounds; ++round) {
            SCOPED_TRACE(arguments.front() + " with seed " + std::to_string(kSeed));
            RunningTool tool(folder(), arguments);
            passRandomMoment();
            tool.signal(round % 2 == 0 ? SIGTERM : SIGINT);
            Outcome const outcome = tool.finish();
            // Before the program listens, a signal ends it, with nothing made.
            if (outcome.status == -1)
                EXPECT_EQ(listFiles(), before);
            else
                expectCleanEnd(outcome, before);
            EXPECT_EQ(listFiles().count("new.vmdk.lock"), 0u);
            for (std::string const& name : listFiles()) {
                if (before.count(name) == 0)
                    std::filesystem::remove(path(name));
            }
        }
    }
    EXPECT_EQ(runWell({"compare", "packed.vmdk", "disk.vmdk"}), "equal\n");
}

TEST_F(Interruption, LongWorkOnAHugeDiskEndsAtOnce) {
    // So large that no machine is through before the signal comes.
    runWell({"create", "disk.vmdk", "--size", "8T", "--split", "20G", "--on-demand",
             "--allow-oversize"});
    std::set<std::string> const before = listFiles();
    for (Arguments const& arguments :
         {Arguments{"compare", "disk.vmdk", "disk.vmdk"},
          Arguments{"convert", "disk.vmdk", "new.vmdk", "--split", "20G", "--on-demand"}}) {
        SCOPED_TRACE(arguments.front());
        RunningTool tool(folder(), joined({arguments, Arguments{"--allow-oversize"}}));
        // The lock is taken once the program listens to signals.
        waitForFile(tool, arguments[1] + ".lock");
        tool.signal(SIGINT);
        Outcome const outcome = tool.finish();
        EXPECT_EQ(outcome.status, 10);
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
        EXPECT_EQ(listFiles(), before);
    }
}

TEST_F(Interruption, ShortWorkOnAHugeDiskEndsWithTheSignalToo) {
    // Extents without a file take these commands no time.
    runWell({"create", "disk.vmdk", "--size", "8T", "--split", "20G", "--on-demand",
             "--allow-oversize"});
    runWell(
        {"child", "disk.vmdk", "child.vmdk", "--split", "20G", "--on-demand", "--allow-oversize"});
    std::set<std::string> const before = listFiles();
    for (Arguments const& command :
         {Arguments{"check", "disk.vmdk"}, Arguments{"map", "disk.vmdk"},
          Arguments{"map", "child.vmdk"}, Arguments{"export", "disk.vmdk", "image"}}) {
        SCOPED_TRACE(command.front());
        // The first operation makes the lock file.
        Outcome const outcome =
            runAndSignalBehindTheFirst(SIGINT, joined({command, Arguments{"--allow-oversize"}}));
        EXPECT_EQ(outcome.status, 10);
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
        EXPECT_EQ(listFiles(), before);
    }
}

TEST_F(Interruption, InterruptedFlattenKeepsTheChild) {
    writeFile("image", makeImage(kImageBytes, 12));
    runWell({"import", "image", "parent.vmdk", "--compressed"});
    for (int round = 0; round < kRounds; ++round) {
        runWell({"child", "parent.vmdk", "child.vmdk", "--force"});
        RunningTool tool(folder(), {"flatten", "child.vmdk"});
        passRandomMoment();
        tool.signal(round % 2 == 0 ? SIGINT : SIGTERM);
        tool.finish();
        EXPECT_EQ(runWell({"compare", "image", "child.vmdk"}), "equal\n");
        EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
        EXPECT_EQ(listFiles().count("child.vmdk.lock"), 0u);
    }
}

TEST_F(Interruption, InterruptedRebaseKeepsTheChild) {
    writeFile("image", makeImage(kImageBytes, 14));
    runWell({"import", "image", "one.vmdk"});
    std::filesystem::copy(path("one.vmdk"), path("two.vmdk"));
    runWell({"child", "one.vmdk", "child.vmdk"});
    std::set<std::string> const before = listFiles();
    for (int round = 0; round < 2 * kRounds; ++round) {
        RunningTool tool(folder(),
                         {"rebase", "child.vmdk", "--parent", round % 2 ? "one.vmdk" : "two.vmdk"});
        passRandomMoment();
        tool.signal(round % 4 < 2 ? SIGINT : SIGTERM);
        tool.finish();
        EXPECT_EQ(runWell({"compare", "image", "child.vmdk"}), "equal\n");
        EXPECT_EQ(listFiles(), before);
    }
}

TEST_F(Interruption, WaitingForAPasswordEnds) {
    RunningTool tool(folder(),
                     {"create", "disk.vmdk", "--size", "8M", "--encrypt", "--password-fd", "0"});
    tool.feed("half a pass");
    passRandomMoment();
    tool.signal(SIGINT);
    Outcome const outcome = tool.finish();
    if (outcome.status != -1) {
        EXPECT_EQ(outcome.status, 10) << outcome.err;
        EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
    }
    EXPECT_EQ(listFiles(), std::set<std::string>());
}

TEST_F(Interruption, AnOutputThatTakesNoMoreIsAnError) {
    writeFile("image", makeImage(kImageBytes, 15));
    runWell({"import", "image", "disk.vmdk"});
    std::set<std::string> const before = listFiles();
    for (std::string const command :
         {"export disk.vmdk -", "map disk.vmdk", "map disk.vmdk --json", "info disk.vmdk",
          "info disk.vmdk --space --json", "compare image disk.vmdk", "--help", "map --help",
          "--version"}) {
        SCOPED_TRACE(command);
        auto const runWith = [&](std::string const& output) {
            std::string const shell = "cd '" + folder().string() + "' && '" KELM_TOOL "' " +
                                      command + " 2> /dev/null " + output;
            return WEXITSTATUS(std::system(shell.c_str()));
        };
        EXPECT_EQ(runWith("> /dev/full"), 9);
        EXPECT_EQ(runWith("> /dev/null"), 0);
        EXPECT_EQ(listFiles(), before);
    }
}

TEST_F(Interruption, AReaderThatGoesAwayEndsTheMap) {
    runWell({"create", "disk.vmdk", "--size", "8M"});
    std::string const shell =
        "'" KELM_TOOL "' map '" + path("disk.vmdk") + "' 2> '" + path("errors") + "' | true";
    ASSERT_EQ(std::system(shell.c_str()), 0);
    std::string const errors = readFile("errors");
    // The reader may live long enough to take the one line that there is.
    if (!errors.empty()) {
        EXPECT_EQ(errors, "kelm: Cannot write the output: Broken pipe (path: standard output)\n");
    }
    EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
}

TEST_F(Interruption, AReaderThatGoesAwayIsAnError) {
    writeFile("image", makeImage(kImageBytes, 13));
    runWell({"import", "image", "disk.vmdk"});
    std::string const shell = std::string(KELM_TOOL) + " export " + path("disk.vmdk") + " - 2> " +
                              path("errors") + " | head -c 1000 > /dev/null";
    ASSERT_EQ(std::system(shell.c_str()), 0);
    EXPECT_EQ(readFile("errors").rfind("kelm: ", 0), 0u) << readFile("errors");
    EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
}

} // namespace

} // namespace interruption_test

} // namespace endtoend
