#include <csignal>

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// What `--force` replaces, and what it leaves alone.
class Force : public ToolTest {
protected:
    void makeSplitDisk() const {
        writeFile("image", makeImage(std::size_t{12} << 20, 21));
        runWell({"import", "image", "disk.vmdk", "--split", "4M"});
        ASSERT_EQ(listFiles(), (std::set<std::string>{"disk-s00000.vmdk", "disk-s00001.vmdk",
                                                      "disk-s00002.vmdk", "disk-s00003.vmdk",
                                                      "disk.vmdk", "disk.vmdk.digests", "image"}));
    }
};

TEST_F(Force, FilesOfASplitDiskGoWithIt) {
    makeSplitDisk();
    runWell({"import", "image", "disk.vmdk", "--force"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "disk.vmdk.digests", "image"}));
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
}

TEST_F(Force, DigestsGoWithTheDiskThatHadThem) {
    makeSplitDisk();
    runWell({"import", "image", "disk.vmdk", "--force", "--no-digests"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "image"}));
}

TEST_F(Force, FilesThatTheNewDiskNeedsTooStay) {
    makeSplitDisk();
    runWell({"import", "image", "disk.vmdk", "--split", "8M", "--force"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk-s00000.vmdk", "disk-s00001.vmdk",
                                                  "disk.vmdk", "disk.vmdk.digests", "image"}));
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
}

TEST_F(Force, OldDataDoesNotShineThroughFilesThatAreMadeLater) {
    makeSplitDisk();
    runWell({"create", "disk.vmdk", "--size", "12M", "--split", "4M", "--on-demand", "--force"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk-s00000.vmdk", "disk.vmdk", "image"}));
    writeFile("zeros", std::string(std::size_t{12} << 20, '\0'));
    EXPECT_EQ(runWell({"compare", "zeros", "disk.vmdk"}), "equal\n");
}

TEST_F(Force, AFailureBringsTheFormerDiskBack) {
    makeSplitDisk();
    std::set<std::string> const before = listFiles();
    // More than the disk holds, which shows only at the end.
    Outcome const outcome = run({"import", "-", "disk.vmdk", "--size", "8M", "--force"},
                                makeImage(std::size_t{9} << 20, 22));
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(listFiles(), before);
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "disk.vmdk", "--digests"}), "");
}

TEST_F(Force, WhatMakesNoSenseTouchesNothing) {
    makeSplitDisk();
    std::set<std::string> const before = listFiles();
    runBadly(2, {"create", "disk.vmdk", "--size", "8M", "--split", "4K", "--force"});
    runBadly(2, {"create", "disk.vmdk", "--size", "100T", "--force"});
    EXPECT_EQ(listFiles(), before);
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk"}), "equal\n");
}

TEST_F(Force, AKilledProgramLeavesTheFormerDiskWholeAndTheNextOneNamesIt) {
    makeSplitDisk();
    {
        RunningTool tool(folder(), {"import", "-", "disk.vmdk", "--size", "16M", "--force"});
        // More than a pipe holds: once it has been taken, the program is at work.
        tool.feed(std::string(std::size_t{2} << 20, 'x'));
        tool.signal(SIGKILL);
        EXPECT_EQ(tool.finish().status, -1);
    }
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk.former/disk.vmdk"}), "equal\n");
    EXPECT_EQ(runWell({"check", "disk.vmdk.former/disk.vmdk"}), "");
    std::string const words = "kelm: warning: The disk that was to be replaced is still kept in '" +
                              path("disk.vmdk.former") + "'.";
    for (Arguments const& arguments :
         {Arguments{"info", "disk.vmdk"}, Arguments{"check", "disk.vmdk"},
          Arguments{"import", "image", "disk.vmdk", "--force"}})
        EXPECT_EQ(run(arguments).err.find(words), 0U) << arguments.front();
    EXPECT_EQ(runWell({"compare", "image", "disk.vmdk.former/disk.vmdk"}), "equal\n");
}

TEST_F(Force, ADiskReplacesNothingButFiles) {
    makeSplitDisk();
    ASSERT_EQ(::mkfifo(path("pipe").c_str(), 0600), 0);
    // A device's node, where the system lets us make one; nothing is behind that number.
    bool const hasNode = ::mknod(path("node").c_str(), S_IFBLK | 0600, makedev(7, 4095)) == 0;
    std::set<std::string> const before = listFiles();
    for (std::string const name : {"pipe", "node"}) {
        if (name == "node" && !hasNode)
            continue;
        runBadly(2, {"import", "image", name, "--force"});
        runBadly(2, {"create", name, "--size", "8M", "--force"});
        EXPECT_FALSE(std::filesystem::is_regular_file(path(name))) << name;
    }
    EXPECT_EQ(listFiles(), before);
}

TEST_F(Force, AnImageDoesNotReplaceADiskInUse) {
    makeSplitDisk();
    runWell({"import", "image", "other.vmdk"});
    std::filesystem::create_hard_link(path("other.vmdk"), path("link"));
    std::string const before = readFile("other.vmdk");
    RunningTool reader(folder(), {"export", "other.vmdk", "-"});
    reader.readOutput(1);
    EXPECT_EQ(runBadly(6, {"export", "disk.vmdk", "other.vmdk", "--force"}),
              "kelm: The file is in use. (path: other.vmdk)\n");
    runBadly(6, {"export", "disk.vmdk", "link", "--force"});
    EXPECT_EQ(reader.finish().status, 0);
    EXPECT_TRUE(readFile("other.vmdk") == before);
}

TEST_F(Force, ACopiedDescriptorDoesNotCostTheParentItsFiles) {
    makeSplitDisk();
    std::filesystem::copy(path("disk.vmdk"), path("copy.vmdk"));
    runWell({"child", "disk.vmdk", "copy.vmdk", "--force"});
    EXPECT_EQ(runWell({"compare", "image", "copy.vmdk"}), "equal\n");
    runWell({"create", "copy.vmdk", "--parent", "disk.vmdk", "--force"});
    EXPECT_EQ(runWell({"compare", "image", "copy.vmdk"}), "equal\n");
}

TEST_F(Force, FilesThatADescriptorOnlyClaimsAreLeftAlone) {
    runWell({"create", "other.vmdk", "--size", "8M"});
    writeFile("precious", "precious");
    std::filesystem::copy(path("other.vmdk"), path("disk-other.vmdk"));
    writeFile("disk.vmdk", "version=1\nCID=1\nparentCID=ffffffff\n"
                           "createType=\"twoGbMaxExtentSparse\"\n"
                           "RW 16384 SPARSE \"other.vmdk\"\n"
                           "RW 16384 SPARSE \"precious\"\n"
                           "RW 16384 SPARSE \"disk-other.vmdk\"\n");
    runWell({"create", "disk.vmdk", "--size", "8M", "--force"});
    EXPECT_EQ(listFiles(),
              (std::set<std::string>{"disk-other.vmdk", "disk.vmdk", "other.vmdk", "precious"}));
}

TEST_F(Force, AnImageIsNotReplacedByTheDiskThatIsMadeOfIt) {
    std::string const image = makeImage(std::size_t{8} << 20, 36);
    writeFile("disk-s00001.vmdk", image);
    EXPECT_EQ(runBadly(3, {"import", "disk-s00001.vmdk", "disk.vmdk", "--split", "4M", "--force"}),
              "kelm: The file is being read. (uri: " + path("disk-s00001.vmdk") + ")\n");
    EXPECT_EQ(listFiles(), std::set<std::string>{"disk-s00001.vmdk"});
    EXPECT_EQ(readFile("disk-s00001.vmdk"), image);
}

TEST_F(Force, ADiskInUseIsNotReplaced) {
    makeSplitDisk();
    std::set<std::string> before = listFiles();
    RunningTool reader(folder(), {"export", "disk.vmdk", "-"});
    reader.readOutput(1);
    std::string const error = runBadly(6, {"create", "disk.vmdk", "--size", "8M", "--force"});
    EXPECT_NE(error.find("in use"), std::string::npos) << error;
    EXPECT_EQ(reader.finish().status, 0);
    EXPECT_EQ(listFiles(), before);
}

} // namespace

} // namespace endtoend
