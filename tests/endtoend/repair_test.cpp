#include <nlohmann/json.hpp>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace repair_test {

namespace {

using nlohmann::json;

constexpr std::size_t kSector = 512;

class RepairTool : public ToolTest {
protected:
    void makeDisk(Arguments const& options) {
        writeFile("image", makeImage(std::size_t{8} << 20, 7));
        runWell(joined({{"import", "image", "disk.vmdk"}, options}));
    }

    /// The header and the place of the table.
    void damageDisk() {
        std::string const content = readFile("disk.vmdk");
        auto const byteAt = [&](std::size_t at) {
            return static_cast<std::size_t>(static_cast<unsigned char>(content[at]));
        };
        patchFile("disk.vmdk", byteAt(56) * kSector, std::string(kSector, '\xff'));
        patchFile("disk.vmdk", 0, std::string(kSector, '\0'));
    }
};

TEST_F(RepairTool, MendsTakesBackAndSaysWhatItDoes) {
    makeDisk({"--compressed"});
    std::string const sound = readFile("disk.vmdk");
    damageDisk();
    std::string const damaged = readFile("disk.vmdk");
    std::string const name = path("disk.vmdk");

    Outcome const planned = run({"repair", "disk.vmdk", "--dry-run"});
    EXPECT_EQ(planned.status, 1);
    EXPECT_EQ(planned.out,
              name + ": would mend the header\n" + name + ": would mend the grain directory\n");
    EXPECT_EQ(readFile("disk.vmdk"), damaged);

    EXPECT_EQ(runWell({"repair", "disk.vmdk"}),
              name + ": mended the header\n" + name + ": mended the grain directory\n");
    EXPECT_EQ(readFile("disk.vmdk"), sound);
    EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
    EXPECT_EQ(runWell({"compare", "disk.vmdk", "image"}), "equal\n");

    EXPECT_EQ(runWell({"repair", "disk.vmdk", "--undo"}), "2 sectors brought back\n");
    EXPECT_EQ(readFile("disk.vmdk"), damaged);
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "disk.vmdk.digests", "image"}));
}

TEST_F(RepairTool, PrintsJSON) {
    makeDisk({});
    damageDisk();
    json const repaired = json::parse(runWell({"repair", "disk.vmdk", "--json"}));
    EXPECT_EQ(repaired["dryRun"], false);
    EXPECT_EQ(repaired["files"], json::array({{{"file", path("disk.vmdk")},
                                               {"mended", {"the header", "the grain directory"}},
                                               {"left", json::array()}}}));
    EXPECT_EQ(
        json::parse(runWell({"repair", "disk.vmdk", "--undo", "--json"}))["sectorsBroughtBack"], 2);
}

TEST_F(RepairTool, OfASoundDiskSaysNothing) {
    makeDisk({});
    EXPECT_EQ(runWell({"repair", "disk.vmdk"}), "");
    EXPECT_EQ(listFiles(), (std::set<std::string>{"disk.vmdk", "disk.vmdk.digests", "image"}));
    EXPECT_EQ(runBadly(8, {"repair", "disk.vmdk", "--undo"}),
              "kelm: No repair of the disk can be undone. (uri: " + path("disk.vmdk") + ")\n");
}

} // namespace

} // namespace repair_test

} // namespace endtoend
