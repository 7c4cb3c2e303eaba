#include <fstream>
#include <functional>

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
