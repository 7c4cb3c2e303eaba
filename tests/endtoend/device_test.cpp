// Devices that are full, and those that can only be read.

#include <csignal>

#include <gtest/gtest.h>

#include "tests/endtoend/tool_fixture.h"
#include "tests/support/small_device.h"

namespace endtoend {

namespace {

using test_support::SmallDevice;

/// "small" is a file system of six mebibytes, "image" and "disk.vmdk" have eight.
class Device : public ToolTest {
protected:
    void SetUp() override {
        std::filesystem::create_directory(path("small"));
        m_device = std::make_unique<SmallDevice>(path("small"), 6);
        if (!m_device->isMounted())
            GTEST_SKIP() << "mounting a small file system is not permitted here";
        writeFile("image", std::string(std::size_t{8} << 20, 'x') + makeImage(1 << 20, 71));
        runWell({"import", "image", "disk.vmdk"});
    }

    bool isSmallEmpty() const { return std::filesystem::is_empty(path("small")); }

    std::unique_ptr<SmallDevice> m_device;
};

TEST_F(Device, AFullOneGivesOneMessage) {
    for (Arguments const& command :
         {Arguments{"import", "image", "small/new.vmdk"},
          Arguments{"import", "image", "small/new.vmdk", "--compressed", "--level", "0"},
          Arguments{"import", "image", "small/new.vmdk", "--split", "2M"},
          Arguments{"import", "image", "small/new.vmdk", "--split", "2M", "--on-demand"},
          Arguments{"convert", "disk.vmdk", "small/new.vmdk"},
          Arguments{"convert", "disk.vmdk", "small/new.vmdk", "--compressed", "--level", "0"},
          Arguments{"create", "small/new.vmdk", "--size", "2000G", "--split", "2G"},
          Arguments{"create", "small/new.vmdk", "--size", "2000G"},
          Arguments{"export", "disk.vmdk", "small/new"}}) {
        SCOPED_TRACE(testing::PrintToString(command));
        EXPECT_NE(runBadly(9, command).find("No space left on device"), std::string::npos);
        EXPECT_TRUE(isSmallEmpty());
    }
}

TEST_F(Device, AFullOneGivesOneMessageToTheManyThreadsOfAnExport) {
    runWell({"import", "image", "coded.vmdk", "--compressed"});
    EXPECT_NE(runBadly(9, {"export", "coded.vmdk", "small/new"}).find("No space left on device"),
              std::string::npos);
    EXPECT_TRUE(isSmallEmpty());
}

TEST_F(Device, AFullOneGivesOneMessageAlsoWhereADiskWasToBeReplaced) {
    writeFile("first", makeImage(std::size_t{1} << 20, 72));
    runWell({"import", "first", "small/old.vmdk", "--split", "2M"});
    for (Arguments const& options :
         {Arguments{}, Arguments{"--compressed", "--level", "0"}, Arguments{"--split", "2M"}}) {
        Arguments const command =
            joined({{"import", "image", "small/old.vmdk", "--force"}, options});
        EXPECT_NE(runBadly(9, command).find("No space left on device"), std::string::npos);
        EXPECT_EQ(run({"compare", "first", "small/old.vmdk"}).status, 0);
    }
}

TEST_F(Device, WithoutRoomForWhatTheParentsHoldKeepsFlattenFromBeginning) {
    for (Arguments const& kind : {Arguments{}, Arguments{"--compressed", "--level", "0"}}) {
        runWell(joined({{"import", "image", "parent.vmdk", "--force"}, kind}));
        runWell({"child", "parent.vmdk", "small/child.vmdk"});
        std::string const before = readFile("small/child.vmdk");
        std::string const error = runBadly(9, {"flatten", "small/child.vmdk"});
        EXPECT_EQ(
            error.find("kelm: There is no room for what the parents hold. (uri: " + path("small")),
            0U)
            << error;
        EXPECT_NE(error.find(", neededBytes: "), std::string::npos) << error;
        EXPECT_NE(error.find(", freeBytes: "), std::string::npos) << error;
        EXPECT_TRUE(readFile("small/child.vmdk") == before);
        EXPECT_EQ(runWell({"check", "small/child.vmdk"}), "");
        std::filesystem::remove(path("small/child.vmdk"));
    }
}

TEST_F(Device, WithoutRoomForWhatTheLinksHoldKeepsMergeFromBeginning) {
    for (Arguments const& kind : {Arguments{}, Arguments{"--compressed", "--level", "0"}}) {
        runWell(joined({{"import", "image", "first.vmdk"}, kind}));
        runWell({"child", "first.vmdk", "last.vmdk"});
        Arguments compression = kind;
        compression.resize(std::min<std::size_t>(1, kind.size()));
        std::string const error = runBadly(
            9, joined({{"merge", "first.vmdk", "last.vmdk", "small/new.vmdk"}, compression}));
        EXPECT_EQ(
            error.find("kelm: There is no room for what the links hold. (uri: " + path("small")),
            0U)
            << error;
        EXPECT_NE(error.find(", neededBytes: "), std::string::npos) << error;
        EXPECT_NE(error.find(", freeBytes: "), std::string::npos) << error;
        EXPECT_TRUE(isSmallEmpty());
        std::filesystem::remove(path("first.vmdk"));
        std::filesystem::remove(path("last.vmdk"));
    }
}

TEST_F(Device, WithRoomForWhatTheLinksHoldIsEnough) {
    writeFile("first", makeImage(std::size_t{5} << 20, 73));
    runWell({"import", "first", "packed.vmdk"});
    runWell({"child", "packed.vmdk", "leaf.vmdk"});
    runWell({"merge", "packed.vmdk", "leaf.vmdk", "small/new.vmdk"});
    EXPECT_EQ(runWell({"compare", "first", "small/new.vmdk"}), "equal\n");
    std::filesystem::remove(path("small/new.vmdk"));
    // What compresses well takes less than its grains.
    runWell({"import", "image", "well.vmdk", "--compressed"});
    runWell({"child", "well.vmdk", "leaf2.vmdk"});
    runWell({"merge", "well.vmdk", "leaf2.vmdk", "small/new.vmdk", "--compressed"});
    EXPECT_EQ(runWell({"compare", "image", "small/new.vmdk"}), "equal\n");
}

TEST_F(Device, WithRoomForWhatTheParentsHoldIsEnough) {
    writeFile("first", makeImage(std::size_t{5} << 20, 73));
    runWell({"import", "first", "parent.vmdk"});
    runWell({"child", "parent.vmdk", "small/child.vmdk"});
    runWell({"flatten", "small/child.vmdk"});
    EXPECT_EQ(runWell({"compare", "first", "small/child.vmdk"}), "equal\n");
    std::filesystem::remove(path("small/child.vmdk"));
    // What compresses well takes less than its grains.
    runWell({"import", "image", "packed.vmdk", "--compressed"});
    runWell({"child", "packed.vmdk", "small/child.vmdk"});
    runWell({"flatten", "small/child.vmdk"});
    EXPECT_EQ(runWell({"compare", "image", "small/child.vmdk"}), "equal\n");
}

TEST_F(Device, ThatBecameReadOnlyIsReadDespiteALockFileThatWasLeft) {
    writeFile("first", makeImage(std::size_t{2} << 20, 74));
    runWell({"import", "first", "small/parent.vmdk"});
    runWell({"child", "small/parent.vmdk", "small/child.vmdk"});
    {
        RunningTool killed(folder(), {"export", "small/child.vmdk", "-"});
        killed.readOutput(1);
        killed.signal(SIGKILL);
        EXPECT_EQ(killed.finish().status, -1);
    }
    ASSERT_TRUE(std::filesystem::exists(path("small/child.vmdk.lock")));
    ASSERT_TRUE(m_device->makeReadOnly());
    for (std::string const name : {"small/child.vmdk", "small/parent.vmdk"}) {
        EXPECT_EQ(runWell({"compare", "first", name}), "equal\n");
        EXPECT_EQ(runWell({"check", name}), "");
        runWell({"info", name});
    }
    EXPECT_EQ(runBadly(3, {"create", "small/new.vmdk", "--size", "8M"}),
              "kelm: Cannot write to the folder: Read-only file system (path: " + path("small") +
                  ")\n");
}

} // namespace

} // namespace endtoend
