// Chains that come near their limit.

#include <sstream>

#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace long_chain_test {

namespace {

class LongChain : public ToolTest {
protected:
    /// A chain of so many disks, "link1.vmdk" and so on, which share an empty extent: enough for
    /// who reads descriptors.
    void makeChain(int count) const {
        runWell({"create", "source.vmdk", "--size", "8M", "--split", "8M"});
        for (int link = 1; link <= count; ++link) {
            std::string text = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=" +
                               std::to_string(10000000 + link) + "\nparentCID=";
            text += link == 1
                        ? "ffffffff\n"
                        : std::to_string(10000000 + link - 1) + "\nparentFileNameHint=\"link" +
                              std::to_string(link - 1) + ".vmdk\"\n";
            text += "createType=\"twoGbMaxExtentSparse\"\n";
            text += readExtentLines();
            writeFile("link" + std::to_string(link) + ".vmdk", text);
        }
    }

    std::string readExtentLines() const {
        std::istringstream text(readFile("source.vmdk"));
        std::string lines;
        for (std::string line; std::getline(text, line);) {
            if (line.starts_with("RW "))
                lines += line + "\n";
        }
        return lines;
    }

    static std::string wayOut(int disk) {
        return " is disk " + std::to_string(disk) +
               " of its chain, which ends at 256. Take links out with 'kelm prune' or 'kelm "
               "drop', or begin a new chain with a full disk.\n";
    }
};

TEST_F(LongChain, IsAWarningFrom200DisksOn) {
    makeChain(199);
    writeFile("image", std::string(std::size_t{8} << 20, 'x'));
    EXPECT_EQ(run({"list", "."}).out.find(" of its chain"), std::string::npos);
    Outcome const outcome = run({"import", "image", "day.vmdk", "--parent", "link199.vmdk"});
    EXPECT_EQ(outcome.status, 0);
    EXPECT_EQ("kelm: warning: This" + wayOut(200), outcome.err);
    std::string const list = runWell({"list", "."});
    EXPECT_NE(list.find("\n" + path("day.vmdk") + wayOut(200)), std::string::npos) << list;
}

TEST_F(LongChain, OfFewerDisksIsNone) {
    makeChain(198);
    writeFile("image", std::string(std::size_t{8} << 20, 'x'));
    runWell({"import", "image", "day.vmdk", "--parent", "link198.vmdk"});
}

} // namespace

} // namespace long_chain_test

} // namespace endtoend
