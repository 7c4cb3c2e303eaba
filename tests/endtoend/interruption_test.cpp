#include <csignal>
#include <cstdlib>
#include <ctime>
#include <random>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

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
        EXPECT_EQ(outcome.status, 3) << outcome.err;
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
            Arguments arguments{"import", "-", "disk.vmdk", "--size", "16M"};
            arguments.insert(arguments.end(), options.begin(), options.end());
            RunningTool tool(folder(), arguments);
            // More than a pipe holds, so that the program runs, and short of the end, so that it still
            // waits when the signal comes.
            tool.feed(image.substr(0, kPipeBytes + m_random() % (kImageBytes - kPipeBytes)));
            tool.signal(signal);
            Outcome const outcome = tool.finish();
            EXPECT_EQ(outcome.status, 3) << outcome.err;
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
    std::set<std::string> const before = listFiles();
    Arguments const commands[] = {
        {"import", "image", "new.vmdk", "--compressed"},
        {"export", "disk.vmdk", "new.img"},
        {"convert", "disk.vmdk", "new.vmdk", "--compressed", "--split", "4M"},
        {"compare", "image", "disk.vmdk"},
        {"check", "disk.vmdk"},
        {"map", "disk.vmdk"},
    };
    for (Arguments const& arguments : commands) {
        for (int round = 0; round < kRounds; ++round) {
            SCOPED_TRACE(arguments.front() + " with seed " + std::to_string(kSeed));
            RunningTool tool(folder(), arguments);
            passRandomMoment();
            tool.signal(SIGTERM);
            Outcome const outcome = tool.finish();
            // Before the program listens, a signal ends it, with nothing made.
            if (outcome.status == -1)
                EXPECT_EQ(listFiles(), before);
            else
                expectCleanEnd(outcome, before);
            for (std::string const& name : listFiles()) {
                if (before.count(name) == 0)
                    std::filesystem::remove(path(name));
            }
        }
    }
}

TEST_F(Interruption, InterruptedFlattenKeepsTheChild) {
    writeFile("image", makeImage(kImageBytes, 12));
    runWell({"import", "image", "parent.vmdk", "--compressed"});
    for (int round = 0; round < kRounds; ++round) {
        runWell({"child", "parent.vmdk", "child.vmdk", "--force"});
        RunningTool tool(folder(), {"flatten", "child.vmdk"});
        passRandomMoment();
        tool.signal(SIGINT);
        tool.finish();
        EXPECT_EQ(runWell({"compare", "image", "child.vmdk"}), "equal\n");
        EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
        EXPECT_EQ(listFiles().count("child.vmdk.lock"), 0u);
    }
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

} // namespace endtoend
