#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace {

constexpr std::size_t kSector = 512;

/// A disk with data, whose places `check` should find to be damaged.
class Damage : public ToolTest {
protected:
    void makeDisk(Arguments const& options) {
        std::string image = makeImage(std::size_t{8} << 20, 7);
        image.replace(0, 4 * 65536, 4 * 65536, 'x');
        writeFile("image", image);
        runWell(joined({{"import", "image", "disk.vmdk"}, options}));
        ASSERT_EQ(runWell({"check", "disk.vmdk"}), "");
    }

    std::size_t number(std::size_t position, int bytes) const {
        std::string const file = readFile("disk.vmdk");
        std::size_t value = 0;
        for (int i = bytes; i-- > 0;)
            value = value << 8 |
                    static_cast<unsigned char>(file[position + static_cast<std::size_t>(i)]);
        return value;
    }

    /// Where the first table lies, in bytes.
    std::size_t firstTable() const { return number(number(56, 8) * kSector, 4) * kSector; }
    std::size_t firstRedundantTable() const { return number(number(48, 8) * kSector, 4) * kSector; }

    /// Where the data of a grain lies, in bytes.
    std::size_t grain(std::size_t index) const {
        return number(firstTable() + index * 4, 4) * kSector;
    }

    void patchBothTables(std::size_t grainIndex, std::string const& entry) {
        patchFile("disk.vmdk", firstRedundantTable() + grainIndex * 4, entry);
        patchFile("disk.vmdk", firstTable() + grainIndex * 4, entry);
    }

    void expectFinding(std::string const& words) {
        Outcome const outcome = run({"check", "disk.vmdk"});
        EXPECT_EQ(outcome.status, 1) << outcome.err;
        EXPECT_NE(outcome.out.find(path("disk.vmdk") + ": " + words), std::string::npos)
            << outcome.out;
        EXPECT_EQ(listFiles().count("disk.vmdk.lock"), 0u);
    }
};

TEST_F(Damage, TablesThatDifferAreFound) {
    makeDisk({});
    patchFile("disk.vmdk", firstRedundantTable() + 5, "?");
    expectFinding("grain table 0 differs from its redundant copy (bytes: 0-8388607)\n");
}

TEST_F(Damage, GrainOutsideTheFileIsFound) {
    makeDisk({});
    patchBothTables(1, std::string("\xff\xff\xff\x7f", 4));
    expectFinding("grain 1 lies outside the file (bytes: 65536-131071)\n");
}

TEST_F(Damage, GrainInTheMetadataIsFound) {
    makeDisk({});
    patchBothTables(1, std::string("\x01\x00\x00\x00", 4));
    expectFinding("grain 1 lies in the metadata (bytes: 65536-131071)\n");
}

TEST_F(Damage, GrainsThatOverlapAreFound) {
    makeDisk({});
    std::string const table = readFile("disk.vmdk").substr(firstTable(), 4);
    patchBothTables(1, table);
    expectFinding("grain 1 shares its place with something else, at sector " +
                  std::to_string(grain(0) / kSector) + " (bytes: 65536-131071)\n");
}

TEST_F(Damage, GrainsThatOverlapFarBehindAreFound) {
    makeDisk({});
    patchBothTables(1, std::string("\x40\x00\x00\x12", 4));
    patchBothTables(2, std::string("\x80\x00\x00\x12", 4));
    // A file of 160 GiB, but for its hole, which is more than is looked at in one go.
    std::filesystem::resize_file(path("disk.vmdk"), std::uintmax_t{160} << 30);
    expectFinding("grain 2 shares its place with something else, at sector " +
                  std::to_string(0x12000080) + " (bytes: 131072-196607)\n" + path("disk.vmdk") +
                  ": grain 1: its content differs from its digest; the same of 1 more, up to grain "
                  "2 (bytes: 65536-196607)\n2 findings\n");
}

TEST_F(Damage, CapacityThatIsNotTheDescriptorsIsFound) {
    makeDisk({});
    patchFile("disk.vmdk", 12, std::string("\x80\x3f", 2));
    expectFinding("the header has a capacity of 16256 sectors, the descriptor says 16384\n");
}

TEST_F(Damage, FileThatWasCutOffIsFound) {
    makeDisk({});
    std::filesystem::resize_file(path("disk.vmdk"), grain(1));
    Outcome const outcome = run({"check", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 1);
    // All that was behind has one cause.
    EXPECT_TRUE(outcome.out.starts_with(path("disk.vmdk") +
                                        ": grain 1 lies outside the file; the same of "))
        << outcome.out;
    EXPECT_TRUE(outcome.out.ends_with("\n1 finding\n")) << outcome.out;
}

TEST_F(Damage, OfAWholeFilesEndIsOneFindingInEveryKindOfDisk) {
    for (Arguments const& options :
         {Arguments{}, Arguments{"--compressed"}, Arguments{"--split", "4M"}}) {
        makeDisk(joined({options, {"--force"}}));
        std::string const file =
            options == Arguments{"--split", "4M"} ? "disk-s00001.vmdk" : "disk.vmdk";
        std::filesystem::resize_file(path(file), std::filesystem::file_size(path(file)) * 2 / 3);
        Outcome const outcome = run({"check", "disk.vmdk"});
        EXPECT_EQ(outcome.status, 1);
        EXPECT_TRUE(outcome.out.starts_with(path(file) + ": grain ")) << outcome.out;
        EXPECT_NE(outcome.out.find("; the same of "), std::string::npos) << outcome.out;
        EXPECT_TRUE(outcome.out.ends_with("\n1 finding\n")) << outcome.out;
    }
}

TEST_F(Damage, RecordOfAnotherGrainIsFound) {
    makeDisk({"--compressed"});
    patchFile("disk.vmdk", grain(2), "\x01");
    expectFinding("the record of grain 2 names another grain (bytes: 131072-196607)\n");
}

TEST_F(Damage, RecordThatIsTooLongIsFound) {
    makeDisk({"--compressed"});
    patchFile("disk.vmdk", grain(2) + 9, "\x7f");
    expectFinding("the record of grain 2 does not fit its slot (bytes: 131072-196607)\n");
}

TEST_F(Damage, GrainThatDoesNotDecodeIsFound) {
    makeDisk({"--compressed"});
    patchFile("disk.vmdk", grain(3) + 12, "\xff\xff\xff\xff");
    expectFinding("grain 3: ");
    EXPECT_NE(run({"check", "disk.vmdk"}).out.find(" (bytes: 196608-262143)\n1 finding\n"),
              std::string::npos);
}

TEST_F(Damage, BrokenTrailIsFound) {
    makeDisk({"--compressed"});
    std::size_t const end = readFile("disk.vmdk").size();
    patchFile("disk.vmdk", end - 1, "!");
    patchFile("disk.vmdk", end - 600, "!");
    patchFile("disk.vmdk", end - 1100, "!");
    expectFinding("the trail has no footer marker\n");
    expectFinding("the footer is no copy of the header\n");
    expectFinding("the trail has no end-of-stream marker\n");
}

TEST_F(Damage, MissingExtentFileIsFound) {
    makeDisk({"--split", "4M"});
    std::string missing;
    for (std::string const& name : listFiles()) {
        if (name.starts_with("disk-s"))
            missing = name;
    }
    std::filesystem::remove(path(missing));
    Outcome const outcome = run({"check", "disk.vmdk"});
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_NE(outcome.out.find(path(missing) + ": the file is missing\n"), std::string::npos)
        << outcome.out;
}

TEST_F(Damage, ChangedParentIsFound) {
    makeDisk({});
    runWell({"child", "disk.vmdk", "child.vmdk"});
    std::size_t const position = readFile("disk.vmdk").find("\nCID=");
    ASSERT_NE(position, std::string::npos);
    char const digit = readFile("disk.vmdk")[position + 5];
    patchFile("disk.vmdk", position + 5, digit == '7' ? "8" : "7");
    Outcome const outcome = run({"check", "child.vmdk"});
    EXPECT_EQ(outcome.status, 1) << outcome.err;
    EXPECT_NE(outcome.out.find(path("disk.vmdk") + ": the parent has changed: "), std::string::npos)
        << outcome.out;
}

TEST_F(Damage, FindingsComeInOrderWhateverTheThreads) {
    makeDisk({"--compressed"});
    for (std::size_t const index : {0, 1, 3})
        patchFile("disk.vmdk", grain(index) + 12, "\xff\xff\xff\xff");
    Outcome const one = run({"check", "disk.vmdk", "--threads", "1"});
    Outcome const many = run({"check", "disk.vmdk", "--threads", "4"});
    EXPECT_EQ(one.status, 1);
    EXPECT_EQ(one.out, many.out);
    std::size_t const first = one.out.find("grain 0: ");
    std::size_t const second = one.out.find("grain 3: ");
    EXPECT_LT(first, second) << one.out;
    EXPECT_NE(second, std::string::npos) << one.out;
    EXPECT_NE(one.out.find("; the same of 1 more, up to grain 1 (bytes: 0-131071)\n"),
              std::string::npos)
        << one.out;
    EXPECT_NE(one.out.find("2 findings\n"), std::string::npos) << one.out;
}

TEST_F(Damage, DamagedGrainIsNotCopiedAsIfItWereSound) {
    makeDisk({"--compressed"});
    runWell({"child", "disk.vmdk", "child.vmdk"});
    patchFile("disk.vmdk", grain(3) + 12, "\xff\xff\xff\xff");
    std::string const place = "uri: " + path("disk.vmdk") + ", grain: 3, bytes: 196608-262143)\n";
    for (Arguments const& command :
         {Arguments{"convert", "disk.vmdk", "copy.vmdk", "--compressed"},
          Arguments{"convert", "disk.vmdk", "copy.vmdk"},
          Arguments{"export", "disk.vmdk", "copy.raw"}, Arguments{"flatten", "child.vmdk"}}) {
        Outcome const outcome = run(command);
        EXPECT_EQ(outcome.status, 7) << command.front();
        EXPECT_NE(outcome.err.find(place), std::string::npos) << outcome.err;
    }
    EXPECT_EQ(listFiles().count("copy.vmdk"), 0U);
    EXPECT_EQ(listFiles().count("copy.raw"), 0U);
    // The child still has its parent.
    EXPECT_NE(readFile("child.vmdk").find("parentFileNameHint=\"disk.vmdk\""), std::string::npos);
    runWell({"convert", "disk.vmdk", "copy.vmdk", "--compressed", "--no-verify"});
    EXPECT_EQ(listFiles().count("copy.vmdk.digests"), 0U);
    EXPECT_EQ(run({"check", "copy.vmdk"}).status, 1);
}

TEST_F(Damage, NoiseIsNoDisk) {
    writeFile("disk.vmdk", makeImage(100000, 8).substr(0, 3));
    EXPECT_EQ(run({"info", "disk.vmdk"}).status, 7);
    EXPECT_EQ(run({"check", "disk.vmdk"}).status, 1);
}

} // namespace

} // namespace endtoend
