#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace table_damage_test {

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kImageBytes = std::size_t{8} << 20;

/// A main grain table of which a sector was lost, while its redundant copy is as it was. Only the
/// main table is read by who looks for a grain, so its grains would read as zeros.
class TableDamage : public ToolTest {
protected:
    void makeDisk(Arguments const& options, std::string const& name = "disk.vmdk") {
        writeFile("image", makeImage(kImageBytes, 7));
        runWell(joined({{"import", "image", name}, options}));
    }

    std::size_t number(std::string const& file, std::size_t position, int bytes) const {
        std::string const content = readFile(file);
        std::size_t value = 0;
        for (int i = bytes; i-- > 0;)
            value = value << 8 |
                    static_cast<unsigned char>(content[position + static_cast<std::size_t>(i)]);
        return value;
    }

    std::size_t firstTable(std::string const& file) const {
        return number(file, number(file, 56, 8) * kSector, 4) * kSector;
    }

    std::size_t firstRedundantTable(std::string const& file) const {
        return number(file, number(file, 48, 8) * kSector, 4) * kSector;
    }

    void loseTableSector(std::string const& file) {
        patchFile(file, firstTable(file), std::string(kSector, '\0'));
    }

    /// Expects the words for the first table of the disk, of which `grains` lie in that file.
    void expectRefused(Arguments const& command, std::string const& file, std::string const& grains,
                       std::string const& bytes) {
        SCOPED_TRACE(command.front());
        EXPECT_EQ(runBadly(7, command),
                  "kelm: Grain table 0 differs from its redundant copy, so its grains may be lost. "
                  "(uri: " +
                      path(file) + ", table: 0, grains: " + grains + ", bytes: " + bytes +
                      ", damagedTables: 1)\n");
    }

    void expectWholeDiskRefused(std::string const& file) {
        for (Arguments const& command :
             {Arguments{"export", "disk.vmdk", "copy.img"}, Arguments{"export", "disk.vmdk", "-"},
              Arguments{"convert", "disk.vmdk", "copy.vmdk"},
              Arguments{"compare", "disk.vmdk", "image"},
              Arguments{"compare", "image", "disk.vmdk"},
              Arguments{"import", "image", "copy.vmdk", "--parent", "disk.vmdk"}})
            expectRefused(command, file, "0-127", "0-8388607");
        EXPECT_EQ(listFiles().count("copy.img"), 0U);
        EXPECT_EQ(listFiles().count("copy.vmdk"), 0U);
    }
};

TEST_F(TableDamage, IsNotHandedOutAsZeros) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed"}}) {
        makeDisk(joined({options, {"--force"}}));
        loseTableSector("disk.vmdk");
        expectWholeDiskRefused("disk.vmdk");
    }
}

TEST_F(TableDamage, OfAnEncryptedDiskIsNotHandedOutAsZeros) {
    writeFile("password", "secret\n");
    Arguments const password{"--password-file", "password"};
    makeDisk(joined({{"--encrypt", "--rounds", "1000"}, password}));
    loseTableSector("disk.vmdk");
    expectRefused(joined({{"export", "disk.vmdk", "copy.img"}, password}), "disk.vmdk", "0-127",
                  "0-8388607");
}

TEST_F(TableDamage, OfAFurtherExtentIsNamedByItsFileAndItsPlaceInTheDisk) {
    makeDisk({"--split", "4M"});
    loseTableSector("disk-s00001.vmdk");
    std::string const line = runBadly(7, {"export", "disk.vmdk", "copy.img"});
    EXPECT_NE(line.find("(uri: " + path("disk-s00001.vmdk") + ", table: 0, grains: "),
              std::string::npos)
        << line;
    EXPECT_EQ(line.find("grains: 0-"), std::string::npos) << line;
    EXPECT_EQ(line.find("bytes: 0-"), std::string::npos) << line;
}

TEST_F(TableDamage, OfAParentIsNotHandedOutThroughItsChild) {
    makeDisk({}, "parent.vmdk");
    runWell({"child", "parent.vmdk", "between.vmdk"});
    runWell({"child", "between.vmdk", "disk.vmdk"});
    std::string const child = readFile("disk.vmdk");
    loseTableSector("parent.vmdk");
    expectWholeDiskRefused("parent.vmdk");
    expectRefused({"flatten", "disk.vmdk"}, "parent.vmdk", "0-127", "0-8388607");
    EXPECT_EQ(readFile("disk.vmdk"), child);
}

TEST_F(TableDamage, ACopyThatLagsBehindRefusesNothing) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed"}}) {
        makeDisk(joined({options, {"--force"}}));
        patchFile("disk.vmdk", firstRedundantTable("disk.vmdk"), std::string(kSector, '\0'));
        runWell({"export", "disk.vmdk", "copy.img", "--force"});
        EXPECT_EQ(readFile("copy.img"), readFile("image"));
    }
}

TEST_F(TableDamage, AllOfItIsCounted) {
    runWell({"create", "disk.vmdk", "--size", "128M"});
    std::size_t const table = firstRedundantTable("disk.vmdk");
    for (std::size_t const index : {1, 3})
        patchFile("disk.vmdk", table + index * 4 * kSector, "\x01");
    std::string const line = runBadly(7, {"export", "disk.vmdk", "copy.img"});
    EXPECT_NE(line.find("table: 1, grains: 512-1023, bytes: 33554432-67108863, damagedTables: 2)"),
              std::string::npos)
        << line;
}

} // namespace

} // namespace table_damage_test

} // namespace endtoend
