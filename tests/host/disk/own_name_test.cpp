#include "host/disk/own_name.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace test_support {
namespace own_name_test {

namespace {

using kelm::host::correctOwnName;

constexpr std::size_t kAreaBytes = 2048;

std::vector<unsigned char> areaWith(std::string const& text) {
    Bytes area = fromText(text);
    area.resize(kAreaBytes, 0);
    return area;
}

/// The text of an area, which must be followed by zeros alone.
std::string textOf(std::vector<unsigned char> const& area) {
    std::string const text(area.begin(), area.end());
    std::size_t const end = std::min(text.find('\0'), text.size());
    EXPECT_EQ(std::string::npos, text.find_first_not_of('\0', end));
    EXPECT_EQ(kAreaBytes, area.size());
    return text.substr(0, end);
}

yx::CURI fileNamed(std::string const& name) {
    return yx::CURI("mem:///disks") << yx::String::fromUTF8(name);
}

/// The text under which the file of that name shows a descriptor of this text.
std::string corrected(std::string const& text, std::string const& name) {
    auto const area = correctOwnName(areaWith(text), fileNamed(name));
    return area ? textOf(*area) : "unchanged";
}

int countChangedSectors(std::string const& before, std::string const& after) {
    std::vector<unsigned char> const from = areaWith(before);
    std::vector<unsigned char> const to = areaWith(after);
    int count = 0;
    for (std::size_t at = 0; at < kAreaBytes; at += 512)
        count += slice(from, at, 512) != slice(to, at, 512);
    return count;
}

/// A descriptor that fills the first sector nearly, so that its last lines stand in the second one.
std::string longText(std::string const& name) {
    return "# Disk DescriptorFile\nversion=1\nCID=12345678\n" + std::string(300, ' ') +
           "\n# Extent description\nRW 128 SPARSE \"" + name +
           "\"\n\n# The Disk Data Base\n#DDB\n" + std::string(200, ' ') +
           "\nddb.adapterType = \"lsilogic\"\nddb.kelm.state = \"complete  \"\n";
}

TEST(OwnName, ThatIsRightStays) {
    EXPECT_EQ("unchanged", corrected("CID=1\nRW 128 SPARSE \"a.vmdk\"\n", "a.vmdk"));
    EXPECT_EQ("unchanged", corrected("CID=1\nRW 128 SPARSE \"./x/../a.vmdk\"\n", "a.vmdk"));
    EXPECT_EQ("unchanged", corrected("RW 128 SPARSE \"mem:///disks/a.vmdk\"\n", "a.vmdk"));
}

TEST(OwnName, OfARenamedDiskIsThatOfTheFile) {
    EXPECT_EQ("CID=1\nRW 128 SPARSE \"new.vmdk\"\nddb.x = \"1\"\n",
              corrected("CID=1\nRW 128 SPARSE \"a.vmdk\"\nddb.x = \"1\"\n", "new.vmdk"));
    EXPECT_EQ("CID=1\nRW 128 SPARSE \"a.vmdk\" 128\r\n",
              corrected("CID=1\nRW 128 SPARSE \"long name.vmdk\" 128\r\n", "a.vmdk"));
}

TEST(OwnName, IsThatOfTheFirstLineOfSeveral) {
    EXPECT_EQ("RW 128 SPARSE \"new.vmdk\"\nRW 128 SPARSE \"a-s00001.vmdk\"\n",
              corrected("RW 128 SPARSE \"a.vmdk\"\nRW 128 SPARSE \"a-s00001.vmdk\"\n", "new.vmdk"));
}

TEST(OwnName, MayStandInAnyLine) {
    EXPECT_EQ("unchanged",
              corrected("RW 128 SPARSE \"b.vmdk\"\nRW 128 SPARSE \"a.vmdk\"\n", "a.vmdk"));
}

TEST(OwnName, IsNotSoughtInOtherLines) {
    std::string const others = "# RW 128 SPARSE \"x.vmdk\"\nkey=RW 1 SPARSE \"y.vmdk\"\n"
                               "RW many SPARSE \"z.vmdk\"\n";
    EXPECT_EQ(others + "RW 128 SPARSE \"new.vmdk\"\n",
              corrected(others + "RW 128 SPARSE \"a.vmdk\"\n", "new.vmdk"));
    EXPECT_EQ("unchanged", corrected(others, "new.vmdk"));
    EXPECT_EQ("unchanged", corrected("", "new.vmdk"));
}

TEST(OwnName, IsInTheEncodingOfTheText) {
    EXPECT_EQ("RW 128 SPARSE \"\xC3\xA4.vmdk\"\n",
              corrected("RW 128 SPARSE \"a.vmdk\"\n", "\xC3\xA4.vmdk"));
    EXPECT_EQ("encoding=\"ISO-8859-1\"\nRW 128 SPARSE \"\xE4.vmdk\"\n",
              corrected("encoding=\"ISO-8859-1\"\nRW 128 SPARSE \"\xFC.vmdk\"\n", "\xC3\xA4.vmdk"));
}

TEST(OwnName, ThatReadsAsSomethingElseIsSpelledAsAURI) {
    EXPECT_EQ("RW 128 SPARSE \"mem:///disks/b:c.vmdk\"\n",
              corrected("RW 128 SPARSE \"a.vmdk\"\n", "b:c.vmdk"));
}

TEST(OwnName, OfTheSameLengthMovesNothing) {
    std::string const before = longText("monday.vmdk");
    std::string const after = corrected(before, "sunday.vmdk");
    EXPECT_EQ(longText("sunday.vmdk"), after);
    EXPECT_EQ(1, countChangedSectors(before, after));
}

TEST(OwnName, ThatIsShorterMovesNoLineToAnotherSector) {
    std::string const before = longText("monday.vmdk");
    std::string const after = corrected(before, "a.vmdk");
    EXPECT_NE(std::string::npos,
              after.find("\n# Extent description     \nRW 128 SPARSE \"a.vmdk\"\n"));
    EXPECT_EQ(before.size(), after.size());
    EXPECT_EQ(1, countChangedSectors(before, after));
}

TEST(OwnName, ThatIsLongerMovesNoLineToAnotherSector) {
    std::string const before = longText("a.vmdk");
    std::string const after = corrected(before, "monday.vmdk");
    EXPECT_NE(std::string::npos, after.find("\n# Extent descri\nRW 128 SPARSE \"monday.vmdk\"\n"));
    EXPECT_EQ(before.size(), after.size());
    EXPECT_EQ(1, countChangedSectors(before, after));
}

TEST(OwnName, ThatIsFarLongerMovesTheLinesBehind) {
    std::string const name = std::string(60, 'n') + ".vmdk";
    EXPECT_EQ(longText(name), corrected(longText("a.vmdk"), name));
}

TEST(OwnName, DoesNotCutACharacterOfAComment) {
    std::string text = longText("a.vmdk");
    text.replace(text.find("# Extent description"), 20, "# \xC3\xA4\xC3\xA4\xC3\xA4\xC3\xA4");
    // One letter more would have to come off the last character.
    std::string const after = corrected(text, "aa.vmdk");
    EXPECT_EQ(std::string::npos, after.find("\xC3\n"));
    EXPECT_NE(std::string::npos, after.find("\"aa.vmdk\""));
}

TEST(OwnName, WithoutRoomIsRefused) {
    std::string const text =
        "RW 128 SPARSE \"a.vmdk\"\n" + std::string(kAreaBytes - 26, 'x') + "\n";
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotSupported,
        "The descriptor inside the disk has no room for the file's name, or cannot spell it. Give "
        "the file a shorter one.",
        {{"uri", "mem:///disks/longer.vmdk"}}, [&] { corrected(text, "longer.vmdk"); }));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotSupported,
        "The descriptor inside the disk has no room for the file's name, or cannot spell it. Give "
        "the file a shorter one.",
        {{"uri", "mem:///disks/%E2%82%AC.vmdk"}},
        [] { corrected("encoding=latin1\nRW 128 SPARSE \"a.vmdk\"\n", "\xE2\x82\xAC.vmdk"); }));
}

} // namespace

} // namespace own_name_test
} // namespace test_support
