#include <csignal>

#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace copy_test {

namespace {

using nlohmann::json;

class Copy : public ToolTest {
protected:
    Copy() {
        std::filesystem::create_directory(path("offsite"));
        writeFile("image", makeImage(std::size_t{8} << 20, 1));
        writeFile("later", makeImage(std::size_t{8} << 20, 2));
        runWell({"import", "image", "full.vmdk", "--split", "4M"});
        runWell({"import", "later", "mon.vmdk", "--parent", "full.vmdk", "--compressed"});
    }
};

TEST_F(Copy, StandsForTheDisk) {
    EXPECT_EQ(path("offsite/all.vmdk") + "\n" + path("offsite/all-s00000.vmdk") + "\n" +
                  path("offsite/all-s00001.vmdk") + "\n" + path("offsite/all-s00002.vmdk") + "\n" +
                  path("offsite/all.vmdk.digests") + "\n",
              runWell({"copy", "full.vmdk", "offsite/all.vmdk"}));
    EXPECT_EQ(json({path("offsite/mon.vmdk"), path("offsite/mon.vmdk.digests")}),
              json::parse(runWell({"copy", "mon.vmdk", "offsite", "--json"}))["files"]);
    EXPECT_EQ("equal\n", runWell({"compare", "offsite/mon.vmdk", "later"}));
    runWell({"rebase", "offsite/mon.vmdk", "--parent", "offsite/all.vmdk"});
    runWell({"delete", "full.vmdk", "--with-children"});
    EXPECT_EQ("equal\n", runWell({"compare", "offsite/mon.vmdk", "later"}));
    EXPECT_EQ("equal\n", runWell({"compare", "offsite/all.vmdk", "image"}));
    runWell({"check", "offsite/mon.vmdk"});
}

TEST_F(Copy, OfACopyThatIsThereIsRefused) {
    runWell({"copy", "mon.vmdk", "offsite"});
    EXPECT_EQ(runBadly(3, {"copy", "mon.vmdk", "offsite"}),
              "kelm: The file exists already. (uri: " + path("offsite/mon.vmdk") + ")\n");
    runBadly(8, {"copy", "none.vmdk", "offsite"});
}

TEST_F(Copy, GoesOnAfterAKill) {
    RunningTool tool(folder(), {"copy", "full.vmdk", "offsite"});
    waitForFile(tool, "offsite/full.vmdk.copying");
    tool.signal(SIGKILL);
    tool.finish();
    Outcome const outcome = run({"copy", "full.vmdk", "offsite"});
    // It may have been done by then.
    if (outcome.status != 0) {
        EXPECT_NE(outcome.err.find("The file exists already."), std::string::npos) << outcome.err;
    }
    EXPECT_EQ("equal\n", runWell({"compare", "offsite/full.vmdk", "image"}));
    EXPECT_FALSE(std::filesystem::exists(path("offsite/full.vmdk.copying")));
    EXPECT_TRUE(std::filesystem::exists(path("offsite/full.vmdk.digests")));
    EXPECT_EQ(5, std::distance(std::filesystem::directory_iterator(path("offsite")),
                               std::filesystem::directory_iterator()));
}

} // namespace

} // namespace copy_test

} // namespace endtoend
