#include <regex>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

using nlohmann::json;

class List : public ToolTest {
protected:
    List() {
        std::filesystem::create_directory(path("days"));
        writeFile("image", makeImage(8400384, 1));
        runWell({"import", "image", "full.vmdk", "--compressed", "--label", "before the \"move\""});
        runWell({"import", "image", "days/mon.vmdk", "--parent", "full.vmdk"});
        runWell({"import", "image", "days/tue.vmdk", "--parent", "days/mon.vmdk"});
    }

    json listDisks() const { return json::parse(runWell({"list", ".", "--json"}))["disks"]; }
};

TEST_F(List, HasTheFactsOfEachImport) {
    json const disks = listDisks();
    ASSERT_EQ(3U, disks.size());
    json const& full = disks[0];
    EXPECT_EQ(path("full.vmdk"), full["file"]);
    EXPECT_EQ("complete", full["state"]);
    EXPECT_TRUE(std::regex_match(full["time"].get<std::string>(),
                                 std::regex(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ)")));
    EXPECT_EQ(path("image"), full["source"]);
    EXPECT_FALSE(full["host"].get<std::string>().empty());
    EXPECT_EQ("before the \"move\"", full["label"]);
    EXPECT_EQ(8400384, full["imageBytes"]);
    EXPECT_EQ(true, full["compressed"]);
    EXPECT_EQ(2, full["dependents"]);
    EXPECT_EQ(path("days/mon.vmdk"), disks[2]["parent"]);
    EXPECT_EQ(2, disks[2]["parents"]);
    EXPECT_EQ(253, disks[2]["parentsLeft"]);
    json const info = json::parse(runWell({"info", "full.vmdk", "--json"}));
    for (char const* const fact : {"time", "source", "host", "label", "imageBytes"})
        EXPECT_EQ(full[fact], info[fact]) << fact;
}

TEST_F(List, KeepsTheFactsInAConvertedDisk) {
    runWell({"convert", "full.vmdk", "copy.vmdk", "--split", "4M"});
    json const disks = json::parse(runWell({"list", ".", "--json"}))["disks"];
    ASSERT_EQ(4U, disks.size());
    for (char const* const fact : {"time", "source", "host", "label", "imageBytes"})
        EXPECT_EQ(disks[0][fact], disks[1][fact]) << fact;
}

TEST_F(List, ShowsStatesAndSums) {
    std::filesystem::remove(path("days/mon.vmdk"));
    std::string const text = runWell({"list", "."});
    EXPECT_NE(text.find("parent missing  " + path("days/tue.vmdk") +
                        "\n    its parent is missing: " + path("days/mon.vmdk") + "\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("complete        " + path("full.vmdk") + "  (before the \"move\")\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("\n2 disks in 2 chains, "), std::string::npos) << text;
    EXPECT_EQ("no disks\n",
              (std::filesystem::create_directory(path("empty")), runWell({"list", "empty"})));
}

TEST_F(List, DrawsAPictureAndLeavesDisksAlone) {
    EXPECT_EQ("", runWell({"list", ".", "--svg", "backups.svg"}));
    std::string const picture = readFile("backups.svg");
    EXPECT_EQ(0U, picture.find("<svg "));
    EXPECT_NE(picture.find("prefers-color-scheme:dark"), std::string::npos);
    for (char const* const name : {"full.vmdk", "mon.vmdk", "tue.vmdk"})
        EXPECT_NE(picture.find("<title>" + std::string(name) + ", "), std::string::npos) << name;
    std::string const disk = readFile("full.vmdk");
    EXPECT_EQ("kelm: The picture would overwrite a file of a disk: full.vmdk\n",
              runBadly(2, {"list", ".", "--svg", "full.vmdk", "--force"}));
    EXPECT_EQ(disk, readFile("full.vmdk"));
}

TEST_F(List, ExplainsTheColoursThatOccurInItsPicture) {
    auto const meanings = [&](std::string const& name) {
        runWell({"list", ".", "--svg", name});
        std::string const picture = readFile(name);
        std::vector<std::string> found;
        for (char const* const meaning : {"complete", "unfinished", "cannot be restored"}) {
            if (picture.find(std::string(">") + meaning + "</text>") != std::string::npos)
                found.push_back(meaning);
        }
        return found;
    };
    EXPECT_EQ((std::vector<std::string>{"complete"}), meanings("whole.svg"));
    std::filesystem::remove(path("days/mon.vmdk"));
    EXPECT_EQ((std::vector<std::string>{"complete", "cannot be restored"}), meanings("torn.svg"));
}

TEST_F(List, OfNoFolderIsNotFound) {
    EXPECT_EQ("kelm: Cannot list the folder: No such file or directory (path: " + path("none") +
                  ")\n",
              runBadly(8, {"list", "none"}));
}

TEST_F(List, RefusesALabelThatHasNoRoom) {
    EXPECT_EQ("kelm: The label is too long.\n", runBadly(2, {"create", "new.vmdk", "--size", "8M",
                                                             "--label", std::string(342, 'x')}));
}

} // namespace

} // namespace endtoend
