#include "tests/endtoend/tool_fixture.h"

namespace endtoend {

namespace salvage_test {

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kGrain = 65536;
constexpr std::size_t kImageBytes = std::size_t{8} << 20;

/// Damaged disks that are read all the same.
class Salvage : public ToolTest {
protected:
    std::size_t number(std::string const& file, std::size_t position, int bytes) const {
        std::string const content = readFile(file);
        std::size_t value = 0;
        for (int i = bytes; i-- > 0;)
            value = value << 8 |
                    static_cast<unsigned char>(content[position + static_cast<std::size_t>(i)]);
        return value;
    }

    std::size_t tableOf(std::string const& file) const {
        return number(file, number(file, 56, 8) * kSector, 4) * kSector;
    }

    std::size_t placeOf(std::string const& file, std::size_t grain) const {
        return number(file, tableOf(file) + grain * 4, 4) * kSector;
    }

    /// An image without a grain of zeros.
    std::string makeFullImage(char first) {
        std::string image(kImageBytes, '\0');
        for (std::size_t i = 0; i < image.size(); ++i)
            image[i] = static_cast<char>(first + static_cast<char>(i / kGrain % 50 + i % 7));
        return image;
    }

    void makeDisk(Arguments const& options) {
        writeFile("image", makeFullImage('!'));
        runWell(joined({{"import", "image", "disk.vmdk", "--force"}, options}));
    }

    /// Expects status 7 and the lines on standard output.
    void expectDamage(Arguments const& arguments, std::string const& lines) {
        SCOPED_TRACE(arguments.front());
        Outcome const outcome = run(arguments);
        EXPECT_EQ(outcome.status, 7);
        EXPECT_EQ(outcome.err, "");
        EXPECT_EQ(outcome.out, lines);
    }

    static std::string withZeros(std::string image, std::size_t grain, std::size_t count = 1) {
        return image.replace(grain * kGrain, count * kGrain, count * kGrain, '\0');
    }
};

TEST_F(Salvage, OfASoundDiskIsTheWholeOne) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed", "--split", "8M"}}) {
        makeDisk(options);
        EXPECT_EQ(runWell({"export", "disk.vmdk", "copy.img", "--salvage", "--force"}), "");
        EXPECT_EQ(readFile("copy.img"), readFile("image"));
    }
}

TEST_F(Salvage, ATableThatIsLostComesFromTheOtherOne) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed"}}) {
        makeDisk(options);
        patchFile("disk.vmdk", tableOf("disk.vmdk"), std::string(kSector, '\0'));
        runBadly(7, {"export", "disk.vmdk", "copy.img", "--force"});
        EXPECT_EQ(runWell({"export", "disk.vmdk", "copy.img", "--salvage", "--force"}), "");
        EXPECT_EQ(readFile("copy.img"), readFile("image"));
    }
}

TEST_F(Salvage, ADamagedRecordIsListedAndReadsAsZeros) {
    makeDisk({"--compressed"});
    for (std::size_t const grain : {3, 4, 9})
        patchFile("disk.vmdk", placeOf("disk.vmdk", grain) + 14, "damage");
    std::string const lines = "damaged: bytes 196608-327679: " + path("disk.vmdk") +
                              " cannot be read: Compressed data is corrupt, incomplete or larger "
                              "than its target.\ndamaged: bytes 589824-655359: " +
                              path("disk.vmdk") +
                              " cannot be read: Compressed data is corrupt, incomplete or larger "
                              "than its target.\n196608 bytes damaged\n";
    std::string const expected = withZeros(withZeros(readFile("image"), 3, 2), 9);
    expectDamage({"export", "disk.vmdk", "copy.img", "--salvage"}, lines);
    EXPECT_EQ(readFile("copy.img"), expected);
    expectDamage({"convert", "disk.vmdk", "copy.vmdk", "--salvage"}, lines);
    runWell({"export", "copy.vmdk", "copied.img"});
    EXPECT_EQ(readFile("copied.img"), expected);
    EXPECT_EQ(runWell({"check", "copy.vmdk"}), "");
}

TEST_F(Salvage, AnImageOnStandardOutputHasNoListInIt) {
    makeDisk({"--compressed"});
    patchFile("disk.vmdk", placeOf("disk.vmdk", 3) + 14, "damage");
    Outcome const outcome = run({"export", "disk.vmdk", "-", "--salvage"});
    EXPECT_EQ(outcome.status, 7);
    EXPECT_EQ(outcome.out, withZeros(readFile("image"), 3));
    EXPECT_EQ(
        outcome.err,
        "damaged: bytes 196608-262143: " + path("disk.vmdk") +
            " cannot be read: Compressed data is corrupt, incomplete or larger than its target.\n"
            "65536 bytes damaged\n");
}

TEST_F(Salvage, TakesWhatIsDamagedFromTheParentIfAsked) {
    makeDisk({"--compressed"});
    std::string const older = readFile("image");
    writeFile("image", makeFullImage('3'));
    runWell({"import", "image", "child.vmdk", "--parent", "disk.vmdk", "--compressed"});
    patchFile("child.vmdk", placeOf("child.vmdk", 5) + 14, "damage");
    std::string const lines =
        "damaged: bytes 327680-393215: " + path("child.vmdk") +
        " cannot be read: Compressed data is corrupt, incomplete or larger than its target.\n"
        "65536 bytes damaged\n";
    expectDamage({"export", "child.vmdk", "copy.img", "--salvage", "--from-parent"}, lines);
    std::string const image = readFile("image");
    EXPECT_EQ(readFile("copy.img"),
              std::string(image).replace(5 * kGrain, kGrain, older.substr(5 * kGrain, kGrain)));
    expectDamage({"export", "child.vmdk", "copy.img", "--salvage", "--force"}, lines);
    EXPECT_EQ(readFile("copy.img"), withZeros(image, 5));
}

TEST_F(Salvage, ALostHeaderIsMadeAnew) {
    for (Arguments const& options : {Arguments{}, Arguments{"--compressed"}}) {
        makeDisk(options);
        patchFile("disk.vmdk", 0, std::string(kSector, '\x5a'));
        EXPECT_EQ(runWell({"export", "disk.vmdk", "copy.img", "--salvage", "--force"}), "");
        EXPECT_EQ(readFile("copy.img"), readFile("image"));
    }
}

TEST_F(Salvage, AMissingFileIsDamageOfItsStretch) {
    makeDisk({"--split", "3M"});
    std::filesystem::remove(path("disk-s00001.vmdk"));
    Outcome const outcome = run({"export", "disk.vmdk", "copy.img", "--salvage"});
    EXPECT_EQ(outcome.status, 7);
    std::string const image = readFile("image");
    std::string const copy = readFile("copy.img");
    ASSERT_EQ(copy.size(), image.size());
    std::size_t const start = copy.find(std::string(kGrain, '\0'));
    std::size_t const end = copy.find_first_not_of('\0', start);
    EXPECT_EQ(copy, std::string(image).replace(start, end - start, end - start, '\0'));
    EXPECT_EQ(outcome.out, "damaged: bytes " + std::to_string(start) + "-" +
                               std::to_string(end - 1) + ": " + path("disk-s00001.vmdk") +
                               " is missing\n" + std::to_string(end - start) + " bytes damaged\n");
}

TEST_F(Salvage, ACutPlainFileLosesNoMoreThanItsEnd) {
    makeDisk({});
    std::size_t const sizeBytes = readFile("disk.vmdk").size();
    std::filesystem::resize_file(path("disk.vmdk"), sizeBytes - kGrain - 5 * kSector);
    expectDamage({"export", "disk.vmdk", "copy.img", "--salvage"},
                 "damaged: bytes 8320512-8323071: " + path("disk.vmdk") +
                     " cannot be read, or lies behind the end of the file\n"
                     "damaged: bytes 8323072-8388607: " +
                     path("disk.vmdk") + " lies outside the file\n68096 bytes damaged\n");
    std::string const image = readFile("image");
    EXPECT_EQ(readFile("copy.img").substr(0, 8320512), image.substr(0, 8320512));
}

TEST_F(Salvage, OfAnEncryptedDiskNeedsItsPassword) {
    writeFile("password", "secret\n");
    writeFile("wrong", "wrong\n");
    makeDisk({"--compressed", "--encrypt", "--rounds", "1000", "--password-file", "password"});
    patchFile("disk.vmdk", tableOf("disk.vmdk"), std::string(kSector, '\0'));
    runBadly(4, {"export", "disk.vmdk", "copy.img", "--salvage", "--password-file", "wrong"});
    EXPECT_EQ(
        runWell({"export", "disk.vmdk", "copy.img", "--salvage", "--password-file", "password"}),
        "");
    EXPECT_EQ(readFile("copy.img"), readFile("image"));
}

TEST_F(Salvage, FromParentNeedsSalvage) {
    makeDisk({});
    runBadly(2, {"export", "disk.vmdk", "copy.img", "--from-parent"});
}

} // namespace

} // namespace salvage_test

} // namespace endtoend
