#include <csignal>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace delete_test {

namespace {

using nlohmann::json;

class Delete : public ToolTest {
protected:
    Delete() {
        writeFile("image", makeImage(std::size_t{8} << 20, 1));
        writeFile("later", makeImage(std::size_t{8} << 20, 2));
        writeFile("password", "secret\n");
        runWell({"import", "image", "full.vmdk", "--split", "4M", "--encrypt", "--rounds", "1000",
                 "--password-file", "password"});
        runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--compressed",
                 "--password-file", "password"});
    }
};

TEST_F(Delete, TakesADiskThatNobodyNeeds) {
    EXPECT_EQ(path("mon.vmdk") + "\n" + path("mon.vmdk.digests") + "\n",
              runWell({"delete", "mon.vmdk"}));
    json const result = json::parse(runWell({"delete", "full.vmdk", "--json"}));
    EXPECT_EQ(path("full.vmdk"), result["files"][0]);
    EXPECT_EQ(json::array(), result["madeIndependent"]);
    EXPECT_EQ(listFiles(), (std::set<std::string>{"image", "later", "password"}));
}

TEST_F(Delete, LeavesADiskWithChildren) {
    std::set<std::string> const before = listFiles();
    EXPECT_EQ("kelm: The disk has children that need it. (uri: " + path("full.vmdk") +
                  ", children: 1, child: " + path("mon.vmdk") +
                  ") --keep-children makes them independent of it first; --with-children deletes "
                  "them too.\n",
              runBadly(3, {"delete", "full.vmdk"}));
    EXPECT_EQ("kelm: Give --with-children or --keep-children, not both.\n",
              runBadly(2, {"delete", "full.vmdk", "--with-children", "--keep-children"}));
    EXPECT_EQ(before, listFiles());
}

TEST_F(Delete, KeepsChildrenByMakingThemIndependent) {
    std::set<std::string> const before = listFiles();
    runBadly(4, {"delete", "full.vmdk", "--keep-children"});
    EXPECT_EQ(before, listFiles());
    json const result = json::parse(runWell(
        {"delete", "full.vmdk", "--keep-children", "--password-file", "password", "--json"}));
    EXPECT_EQ(json({path("mon.vmdk")}), result["madeIndependent"]);
    EXPECT_EQ(listFiles(), (std::set<std::string>{"image", "later", "mon.vmdk", "mon.vmdk.digests",
                                                  "password"}));
    EXPECT_EQ("", runWell({"check", "mon.vmdk", "--digests", "--password-file", "password"}));
    EXPECT_EQ("equal\n", runWell({"compare", "mon.vmdk", "later", "--password-file", "password"}));
}

TEST_F(Delete, TakesChildrenToo) {
    runWell({"delete", "full.vmdk", "--with-children"});
    EXPECT_EQ(listFiles(), (std::set<std::string>{"image", "later", "password"}));
}

TEST_F(Delete, RefusalsHaveTheirStatus) {
    EXPECT_EQ("kelm: The disk does not exist. (uri: " + path("none.vmdk") + ")\n",
              runBadly(8, {"delete", "none.vmdk"}));
    runBadly(7, {"delete", "image"});
    RunningTool writer(folder(), {"import", "-", "new.vmdk", "--size", "8M"});
    // More than a pipe holds: once it is taken, the disk is open.
    writer.feed(std::string(std::size_t{1} << 20, 'x'));
    runBadly(6, {"delete", "new.vmdk"});
    writer.signal(SIGKILL);
    writer.finish();
}

TEST_F(Delete, KilledAtItsVeryEndLeavesNoLockFileToTheNextAttempt) {
    for (Arguments const& command :
         {Arguments{"delete", "gone.vmdk"}, Arguments{"drop", "gone.vmdk"},
          Arguments{"rename", "gone.vmdk", "new.vmdk"}}) {
        writeFile("gone.vmdk.lock", "");
        EXPECT_EQ("kelm: The disk does not exist. (uri: " + path("gone.vmdk") + ")\n",
                  runBadly(8, command));
        EXPECT_EQ(0U, listFiles().count("gone.vmdk.lock")) << command.front();
    }
}

TEST_F(Delete, TakesWhatAKilledImportHasLeftWhetherItIsADiskOrNot) {
    auto const listLeftFiles = [this] {
        std::set<std::string> names = listFiles();
        std::erase_if(names, [](std::string const& name) { return name.rfind("new", 0) != 0; });
        return names;
    };
    for (Arguments const& kind :
         {Arguments{}, Arguments{"--split", "4M"}, Arguments{"--parent", "mon.vmdk"}}) {
        SCOPED_TRACE(kind.empty() ? "plain" : kind.front());
        Arguments const import = joined(
            {{"import", "image", "new.vmdk", "--compressed", "--password-file", "password"}, kind});
        int remains = 0;
        int disks = 0;
        for (int operations = 1; disks < 5; ++operations) {
            SCOPED_TRACE(operations);
            ASSERT_TRUE(runAndKillBehind(operations, import));
            // The first operations may be those of locking the parents.
            if (listLeftFiles().empty())
                continue;
            bool const isDisk = run({"delete", "new.vmdk", "--remains"}).status == 3;
            if (isDisk)
                runWell({"delete", "new.vmdk"});
            EXPECT_EQ(std::set<std::string>(), listLeftFiles());
            // What has become a disk stays one.
            EXPECT_TRUE(isDisk || disks == 0);
            ++(isDisk ? disks : remains);
        }
        EXPECT_GE(remains, 5);
    }
}

TEST_F(Delete, TakesRemainsAndNoDisk) {
    std::set<std::string> const before = listFiles();
    EXPECT_EQ("kelm: The file is no remains of a disk that was being made. (uri: " +
                  path("mon.vmdk") + ")\n",
              runBadly(3, {"delete", "mon.vmdk", "--remains"}));
    runBadly(8, {"delete", "none.vmdk", "--remains"});
    runBadly(2, {"delete", "mon.vmdk", "--remains", "--with-children"});
    runBadly(2, {"delete", "mon.vmdk", "--remains", "--keep-children"});
    EXPECT_EQ(before, listFiles());
    writeFile("new.vmdk", "");
    json const result = json::parse(runWell({"delete", "new.vmdk", "--remains", "--json"}));
    EXPECT_EQ(json({path("new.vmdk")}), result["files"]);
    EXPECT_EQ(before, listFiles());
}

TEST_F(Delete, KilledSaysSoAndGoesOn) {
    runWell({"create", "disk.vmdk", "--size", "8M", "--split", "5M"});
    // What a kill leaves once the main file is gone.
    writeFile("disk.vmdk.deleting", "kelm deleting 1\nmain 1 2 3 4\nfile file://" +
                                        path("disk.vmdk") + "\nfile file://" +
                                        path("disk-s00000.vmdk") + "\nfile file://" +
                                        path("disk-s00001.vmdk") + "\nend\n");
    std::filesystem::remove(path("disk.vmdk"));
    EXPECT_NE(
        run({"check", "disk.vmdk"})
            .err.find("kelm: warning: The disk is being deleted. 'kelm delete' goes on with it.\n"),
        std::string::npos);
    EXPECT_EQ(path("disk-s00000.vmdk") + "\n" + path("disk-s00001.vmdk") + "\n",
              runWell({"delete", "disk.vmdk"}));
    for (std::string const& name : listFiles())
        EXPECT_NE(0U, name.find("disk")) << name;
}

} // namespace

} // namespace delete_test

} // namespace endtoend
