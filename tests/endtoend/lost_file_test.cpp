#include <fstream>
#include <functional>
#include <vector>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

// More than a pipe holds: once it has been taken, the program reads, and its disk is there.
constexpr std::size_t kTakenBytes = std::size_t{2} << 20;
constexpr std::size_t kDiskBytes = std::size_t{8} << 20;

class LostFile : public ToolTest {
protected:
    /// Imports from a pipe, and lets `act` happen in the middle.
    Outcome importWhile(std::function<void()> const& act, Arguments const& options = {}) {
        RunningTool tool(folder(), joined({{"import", "-", "disk.vmdk", "--size", "8M"}, options}));
        tool.feed(std::string(kTakenBytes, 'x'));
        act();
        tool.feed(std::string(kDiskBytes - kTakenBytes, 'y'));
        return tool.finish();
    }
};

/// A command that makes a new disk, and what tells that it is still at work.
struct Making {
    Arguments arguments;

    /// Asked while the program stands still: whether it has yet to look at its files for the last
    /// time.
    std::function<bool()> isAtWork;
};

/// Loses files of new disks while they are made.
class LostNewDisk : public LostFile {
protected:
    /// Runs the program, and lets `act` happen at some moment between the making of a file and the
    /// end. A command that was too quick is given another try.
    Outcome runWhile(Making const& making, std::string const& file,
                     std::function<void()> const& act) {
        std::set<std::string> const before = listFiles();
        constexpr int kMostTries = 100;
        for (int tries = 0; tries < kMostTries; ++tries) {
            RunningTool tool(folder(), making.arguments);
            waitForFile(tool, file);
            bool const isInTime = tool.pause() && making.isAtWork();
            if (isInTime)
                act();
            tool.resume();
            Outcome const outcome = tool.finish();
            if (isInTime)
                return outcome;
            for (std::string const& name : listFiles()) {
                if (before.count(name) == 0)
                    std::filesystem::remove(path(name));
            }
        }
        ADD_FAILURE() << "always done before the file is lost";
        return {};
    }

    /// Expects that the command fails for each of these files of its new disk, deleted and
    /// replaced.
    void expectFailure(Making const& making, std::vector<std::string> const& files) {
        std::set<std::string> const before = listFiles();
        for (std::string const& file : files) {
            SCOPED_TRACE(file);
            Outcome const deleted =
                runWhile(making, file, [&] { std::filesystem::remove(path(file)); });
            EXPECT_EQ(deleted.status, 8);
            EXPECT_EQ(deleted.err, "kelm: The file was deleted while it was being written. (uri: " +
                                       path(file) + ")\n");
            EXPECT_EQ(listFiles(), before);

            Outcome const replaced = runWhile(making, file, [&] {
                writeFile("another", "another");
                std::filesystem::rename(path("another"), path(file));
            });
            EXPECT_EQ(replaced.status, 3);
            EXPECT_EQ(replaced.err,
                      "kelm: The file was replaced by another one while it was being written. "
                      "(uri: " +
                          path(file) + ")\n");
            EXPECT_EQ(readFile(file), "another");
            std::filesystem::remove(path(file));
            EXPECT_EQ(listFiles(), before);
        }
    }

    /// A command that makes the disk new.vmdk of many extents. It makes all of these before it
    /// looks at its files for the last time.
    Making makeSplit(Arguments const& command) {
        return {joined({command, {"new.vmdk", "--size", "1G", "--split", "4M"}}),
                [this] { return listFiles().count(kLastExtent) == 0; }};
    }

    static constexpr char kLastExtent[] = "new-s00264.vmdk";
    std::vector<std::string> const m_filesOfSplit{"new.vmdk", "new-s00000.vmdk", "new-s00007.vmdk"};
};

TEST_F(LostNewDisk, CreationOfASplitDiskFails) {
    expectFailure(makeSplit({"create"}), m_filesOfSplit);
}

TEST_F(LostNewDisk, ConversionToASplitDiskFails) {
    writeFile("image", makeImage(std::size_t{8} << 20, 6));
    runWell({"import", "image", "disk.vmdk"});
    expectFailure(makeSplit({"convert", "disk.vmdk"}), m_filesOfSplit);
}

TEST_F(LostNewDisk, ConversionToADiskInOneFileFails) {
    writeFile("image", makeImage(std::size_t{32} << 20, 7));
    runWell({"import", "image", "disk.vmdk"});
    // The disk is marked as complete before the program looks at its file for the last time.
    expectFailure({{"convert", "disk.vmdk", "new.vmdk"},
                   [this] {
                       return readFile("new.vmdk").find("ddb.kelm.state = \"complete") ==
                              std::string::npos;
                   }},
                  {"new.vmdk"});
}

TEST_F(LostFile, ImportIntoAFileThatIsDeletedMeanwhileFails) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed"}}) {
        Outcome const outcome =
            importWhile([this] { std::filesystem::remove(path("disk.vmdk")); }, options);
        EXPECT_EQ(outcome.status, 8);
        EXPECT_EQ(outcome.err, "kelm: The file was deleted while it was being written. (uri: " +
                                   path("disk.vmdk") + ")\n");
        EXPECT_EQ(listFiles(), std::set<std::string>());
    }
}

TEST_F(LostFile, ImportIntoAFileThatIsReplacedMeanwhileFailsAndLeavesTheOther) {
    Outcome const outcome = importWhile([this] {
        std::filesystem::remove(path("disk.vmdk"));
        std::ofstream(path("disk.vmdk")) << "another";
    });
    EXPECT_EQ(outcome.status, 3);
    EXPECT_EQ(outcome.err,
              "kelm: The file was replaced by another one while it was being written. (uri: " +
                  path("disk.vmdk") + ")\n");
    EXPECT_EQ(readFile("disk.vmdk"), "another");
}

} // namespace

} // namespace endtoend
