// Disks that are in use, and those who wait for them.

#include <csignal>

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/opening_watch.h"

namespace endtoend {

namespace wait_test {

namespace {

using test_support::OpeningWatch;

constexpr std::size_t kImageBytes = std::size_t{8} << 20;

/// Somebody is filling "busy.vmdk".
class Wait : public ToolTest {
protected:
    Wait() : m_image(makeImage(kImageBytes, 91)) {
        writeFile("image", m_image);
        runWell({"import", "image", "disk.vmdk"});
        m_writer = std::make_unique<RunningTool>(
            folder(), Arguments{"import", "-", "busy.vmdk", "--size", "8M"});
        m_writer->feed(m_image.substr(0, kImageBytes / 2));
    }

    void finishWriter() {
        m_writer->feed(m_image.substr(kImageBytes / 2));
        EXPECT_EQ(m_writer->finish().status, 0);
    }

    std::string inUse() const {
        return "kelm: The disk is in use: its lock file is held by another program or another open "
               "disk. (uri: " +
               path("busy.vmdk.lock") + ")\n";
    }

    std::string m_image;
    std::unique_ptr<RunningTool> m_writer;
};

TEST_F(Wait, EndsOnceTheDiskIsFree) {
    for (Arguments const& command :
         {Arguments{"compare", "busy.vmdk", "image"}, Arguments{"check", "busy.vmdk"},
          Arguments{"child", "busy.vmdk", "child.vmdk"},
          Arguments{"import", "image", "busy.vmdk", "--force"}}) {
        SCOPED_TRACE(command.front());
        OpeningWatch openings(folder());
        RunningTool waiting(folder(), joined({command, {"--wait", "600"}}));
        // Those of the first attempt, and of some more.
        EXPECT_TRUE(openings.waitFor("busy.vmdk.lock", 3, waiting.id()));
        finishWriter();
        Outcome const outcome = waiting.finish();
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(runWell({"compare", "image", "busy.vmdk"}), "equal\n");
        std::filesystem::remove(path("busy.vmdk"));
        m_writer = std::make_unique<RunningTool>(
            folder(), Arguments{"import", "-", "busy.vmdk", "--size", "8M"});
        m_writer->feed(m_image.substr(0, kImageBytes / 2));
    }
    finishWriter();
}

TEST_F(Wait, ForAParentIsTheSame) {
    finishWriter();
    runWell({"child", "busy.vmdk", "child.vmdk"});
    m_writer = std::make_unique<RunningTool>(
        folder(), Arguments{"import", "-", "busy.vmdk", "--size", "8M", "--force"});
    m_writer->feed(m_image.substr(0, kImageBytes / 2));
    runBadly(6, {"export", "child.vmdk", "-"});
    OpeningWatch openings(folder());
    RunningTool waiting(folder(), {"info", "child.vmdk", "--wait", "600"});
    EXPECT_TRUE(openings.waitFor("busy.vmdk.lock", 3, waiting.id()));
    finishWriter();
    Outcome const outcome = waiting.finish();
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ(outcome.out.find("in use"), std::string::npos) << outcome.out;
}

TEST_F(Wait, EndsWithTheOrdinaryErrorWhenTheTimeIsOver) {
    EXPECT_EQ(runBadly(6, {"info", "busy.vmdk", "--wait", "0"}), inUse());
    for (Arguments const& command :
         {Arguments{"info", "busy.vmdk"}, Arguments{"check", "busy.vmdk"},
          Arguments{"flatten", "busy.vmdk"}, Arguments{"export", "busy.vmdk", "-"}}) {
        OpeningWatch openings(folder());
        RunningTool waiting(folder(), joined({command, {"--wait", "1"}}));
        EXPECT_TRUE(openings.waitFor("busy.vmdk.lock", 3, waiting.id())) << command.front();
        Outcome const outcome = waiting.finish();
        EXPECT_EQ(outcome.status, 6);
        EXPECT_EQ(outcome.err, inUse());
    }
    finishWriter();
}

TEST_F(Wait, EndsAtTheFirstSignal) {
    OpeningWatch openings(folder());
    RunningTool waiting(folder(), {"info", "busy.vmdk", "--wait", "600"});
    EXPECT_TRUE(openings.waitFor("busy.vmdk.lock", 1, waiting.id()));
    waiting.signal(SIGINT);
    Outcome const outcome = waiting.finish();
    EXPECT_EQ(outcome.status, 10);
    EXPECT_EQ(outcome.err, "kelm: Cancelled.\n");
    finishWriter();
}

TEST_F(Wait, IsForNothingButDisksInUse) {
    // Each would take the ten minutes, if it waited.
    EXPECT_EQ(runBadly(8, {"info", "missing.vmdk", "--wait", "600"}),
              "kelm: The disk does not exist. (uri: " + path("missing.vmdk") + ")\n");
    EXPECT_EQ(runBadly(3, {"create", "disk.vmdk", "--size", "8M", "--wait", "600"}),
              "kelm: The file exists already. (uri: " + path("disk.vmdk") + ")\n");
    runBadly(2, {"info", "disk.vmdk", "--wait", "-1"});
    finishWriter();
}

} // namespace

} // namespace wait_test

} // namespace endtoend
