#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

/// A descriptor of ours in which a byte has changed.
class DescriptorDamage : public ToolTest {
protected:
    void makeDisk(Arguments const& options = {}) {
        writeFile("image", makeImage(std::size_t{8} << 20, 7));
        runWell(joined({{"import", "image", "disk.vmdk"}, options}));
        EXPECT_EQ(runWell({"check", "disk.vmdk"}), "");
    }

    void replaceInFile(std::string const& file, std::string const& from, std::string const& to) {
        std::size_t const position = readFile(file).find(from);
        ASSERT_NE(position, std::string::npos);
        ASSERT_EQ(from.size(), to.size());
        patchFile(file, position, to);
    }

    std::set<std::string> listDiskFiles() const {
        std::set<std::string> names = listFiles();
        std::erase_if(names, [](std::string const& name) { return !name.ends_with(".vmdk"); });
        return names;
    }

    std::string words(std::string const& file) const {
        return path(file) +
               ": the descriptor differs from its checksum: it is damaged, or other software has "
               "edited it\n";
    }

    /// Expects that the command does its work, and warns.
    void expectWarning(Arguments const& command, int times = 1) {
        SCOPED_TRACE(command.front());
        Outcome const outcome = run(command);
        EXPECT_EQ(outcome.status, 0);
        std::string expected;
        for (int i = 0; i < times; ++i)
            expected += "kelm: warning: " + words("disk.vmdk");
        EXPECT_EQ(outcome.err, expected);
    }
};

TEST_F(DescriptorDamage, IsAFinding) {
    for (Arguments const& options : {Arguments{}, Arguments{"--split", "4M"}}) {
        makeDisk(joined({options, {"--force"}}));
        replaceInFile("disk.vmdk", "lsilogic", "lsilogix");
        Outcome const outcome = run({"check", "disk.vmdk"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_EQ(outcome.out, words("disk.vmdk") + "1 finding\n");
    }
}

TEST_F(DescriptorDamage, EveryRoadThatReadsAWholeDiskWarnsAndGoesOn) {
    makeDisk();
    replaceInFile("disk.vmdk", "lsilogic", "lsilogix");
    expectWarning({"export", "disk.vmdk", "copy.img"});
    expectWarning({"convert", "disk.vmdk", "copy.vmdk"});
    expectWarning({"compare", "disk.vmdk", "image"});
    expectWarning({"import", "image", "child.vmdk", "--parent", "disk.vmdk"});
    expectWarning({"flatten", "child.vmdk"});
    EXPECT_EQ(readFile("copy.img"), readFile("image"));
    // What was made of it is sound.
    EXPECT_EQ(runWell({"check", "copy.vmdk"}), "");
    EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
}

TEST_F(DescriptorDamage, ADiskThatBecameShorterIsNotTakenWithoutAWord) {
    makeDisk();
    replaceInFile("disk.vmdk", "RW 16384 SPARSE", "RW 06384 SPARSE");
    Outcome const outcome = run({"export", "disk.vmdk", "copy.img"});
    EXPECT_NE(outcome.err.find(words("disk.vmdk")), std::string::npos) << outcome.err;
}

TEST_F(DescriptorDamage, IsNotMetAfterAnyChangeOfOurs) {
    makeDisk({"--size", "9000001"});
    for (std::string const& name :
         {std::string("b.vmdk"), std::string(150, 'n') + ".vmdk", std::string("disk.vmdk")}) {
        std::filesystem::rename(folder() / *listDiskFiles().begin(), folder() / name);
        EXPECT_EQ(runWell({"check", name}), "");
        runWell({"export", name, "copy.img", "--force"});
    }
    runWell({"child", "disk.vmdk", "child.vmdk"});
    EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
    std::filesystem::create_directory(folder() / "a longer folder");
    std::filesystem::rename(folder() / "disk.vmdk", folder() / "a longer folder" / "disk.vmdk");
    runWell({"rebase", "child.vmdk", "--parent", "a longer folder/disk.vmdk", "--trust"});
    EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
    runWell({"flatten", "child.vmdk"});
    EXPECT_EQ(runWell({"check", "child.vmdk"}), "");
    runWell({"convert", "child.vmdk", "copy.vmdk", "--split", "4M", "--compressed"});
    EXPECT_EQ(runWell({"check", "copy.vmdk"}), "");
}

} // namespace

} // namespace endtoend
