#include <csignal>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace rename_test {

namespace {

using nlohmann::json;

class Rename : public ToolTest {
protected:
    Rename() {
        std::filesystem::create_directory(path("days"));
        writeFile("image", makeImage(std::size_t{8} << 20, 1));
        writeFile("later", makeImage(std::size_t{8} << 20, 2));
        runWell({"import", "image", "full.vmdk", "--split", "4M"});
        runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--compressed"});
    }

    void expectIsWhole(std::string const& child) {
        EXPECT_EQ("equal\n", runWell({"compare", child, "later"}));
    }
};

TEST_F(Rename, MovesADiskAndTellsItsChildren) {
    EXPECT_EQ(path("days/all.vmdk") + "\n" + path("days/all-s00000.vmdk") + "\n" +
                  path("days/all-s00001.vmdk") + "\n" + path("days/all-s00002.vmdk") + "\n" +
                  path("days/all.vmdk.digests") + "\nchild: " + path("mon.vmdk") + "\n",
              runWell({"rename", "full.vmdk", "days/all.vmdk"}));
    expectIsWhole("mon.vmdk");
    EXPECT_EQ("equal\n", runWell({"compare", "days/all.vmdk", "image"}));
    EXPECT_EQ(0U, listFiles().count("full.vmdk"));
}

TEST_F(Rename, IntoAFolderKeepsTheName) {
    json const result = json::parse(runWell({"rename", "mon.vmdk", "days", "--json"}));
    EXPECT_EQ(json({path("days/mon.vmdk"), path("days/mon.vmdk.digests")}), result["files"]);
    EXPECT_EQ(json::array(), result["children"]);
    expectIsWhole("days/mon.vmdk");
}

TEST_F(Rename, LooksForChildrenInTheFoldersThatAreNamed) {
    runWell({"rename", "mon.vmdk", "days"});
    std::filesystem::create_directory(path("empty"));
    runWell({"rename", "full.vmdk", "old.vmdk", "--look", "empty"});
    EXPECT_EQ(8, run({"compare", "days/mon.vmdk", "later"}).status);
    runWell({"rename", "old.vmdk", "full.vmdk"});
    json const result = json::parse(runWell(
        {"rename", "full.vmdk", "old.vmdk", "--look", "empty", "--look", "days", "--json"}));
    EXPECT_EQ(json({path("days/mon.vmdk")}), result["children"]);
    expectIsWhole("days/mon.vmdk");
}

TEST_F(Rename, RefusalsHaveTheirStatus) {
    EXPECT_EQ("kelm: The file exists already. (uri: " + path("mon.vmdk") + ")\n",
              runBadly(3, {"rename", "full.vmdk", "mon.vmdk"}));
    EXPECT_EQ("kelm: The disk does not exist. (uri: " + path("none.vmdk") + ")\n",
              runBadly(8, {"rename", "none.vmdk", "new.vmdk"}));
    runBadly(8, {"rename", "full.vmdk", "nowhere/new.vmdk"});
    runBadly(7, {"rename", "image", "new.vmdk"});
    runBadly(2, {"rename", "full.vmdk"});
    RunningTool writer(folder(), {"import", "-", "new.vmdk", "--size", "8M"});
    // More than a pipe holds: once it is taken, the disk is open.
    writer.feed(std::string(std::size_t{1} << 20, 'x'));
    EXPECT_EQ("kelm: The disk is in use: its lock file is held by another program or another open "
              "disk. (uri: " +
                  path("new.vmdk.lock") + ")\n",
              runBadly(6, {"rename", "new.vmdk", "newer.vmdk"}));
    writer.signal(SIGKILL);
    writer.finish();
}

TEST_F(Rename, ThatFailsInTheMiddleSaysSoAndGoesOn) {
    runWell({"import", "later", "tue.vmdk", "--parent", "full.vmdk", "--split", "4M"});
    // In the way of the child's new descriptor.
    std::filesystem::create_directory(path("tue.vmdk.kelm-part"));
    EXPECT_EQ("kelm: Cannot make the file: Is a directory (path: " + path("tue.vmdk.kelm-part") +
                  ")\n",
              runBadly(3, {"rename", "full.vmdk", "all.vmdk"}));
    std::string const warning = "kelm: warning: The disk is being renamed to '" + path("all.vmdk") +
                                "'. The same 'kelm rename' goes on with it.\n";
    EXPECT_EQ(warning, run({"check", "full.vmdk"}).err);
    EXPECT_EQ(3, run({"rename", "full.vmdk", "other.vmdk"}).status);
    expectIsWhole("mon.vmdk");
    expectIsWhole("tue.vmdk");
    std::filesystem::remove(path("tue.vmdk.kelm-part"));
    runWell({"rename", "full.vmdk", "all.vmdk"});
    expectIsWhole("mon.vmdk");
    expectIsWhole("tue.vmdk");
    for (std::string const& name : listFiles())
        EXPECT_NE(0U, name.find("full")) << name;
}

TEST_F(Rename, KilledGoesOnByTheSameCommand) {
    constexpr int kKills = 10;
    for (int i = 0; i < kKills; ++i) {
        SCOPED_TRACE(i);
        std::string const from = i % 2 == 0 ? "full.vmdk" : "all.vmdk";
        std::string const to = i % 2 == 0 ? "all.vmdk" : "full.vmdk";
        RunningTool tool(folder(), {"rename", from, to});
        waitForFile(tool, from + ".moving");
        tool.signal(SIGKILL);
        tool.finish();
        EXPECT_EQ(0, run({"compare", "mon.vmdk", "later"}).status);
        // The kill may have come when all was done.
        bool const isDone =
            listFiles().count(from) == 0 && listFiles().count(from + ".moving") == 0;
        EXPECT_EQ(isDone ? 8 : 0, run({"rename", from, to}).status);
        expectIsWhole("mon.vmdk");
        std::filesystem::remove(path(from + ".lock"));
        std::string const stem = to.substr(0, to.find('.'));
        EXPECT_EQ(listFiles(),
                  (std::set<std::string>{"days", "image", "later", "mon.vmdk", "mon.vmdk.digests",
                                         to, to + ".digests", stem + "-s00000.vmdk",
                                         stem + "-s00001.vmdk", stem + "-s00002.vmdk"}));
    }
}

} // namespace

} // namespace rename_test

} // namespace endtoend
