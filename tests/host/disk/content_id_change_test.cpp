#include "host/disk/content_id_change.h"

#include <set>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

using kelm::CVMDKDescriptor;
using kelm::host::ContentIDChange;
using kelm::host::drawContentID;
using kelm::host::writeContentID;

namespace test_support {
namespace {

using ContentIDChangeTest = HostTest;

std::string textWith(std::string const& text, unsigned int contentID) {
    CVMDKDescriptor descriptor(toBuffer({text.begin(), text.end()}));
    EXPECT_EQ(contentID, writeContentID(descriptor, contentID));
    return descriptor.toString().toStdString();
}

/// How many sectors of two texts differ, zeros being behind them.
int countChangedSectors(std::string from, std::string to) {
    std::size_t const size = (std::max(from.size(), to.size()) / 512 + 1) * 512;
    from.resize(size);
    to.resize(size);
    int count = 0;
    for (std::size_t at = 0; at < size; at += 512)
        count += from.compare(at, 512, to, at, 512) != 0;
    return count;
}

TEST(DrawContentID, DrawsOfTheWholeRange) {
    unsigned int allOnes = 0;
    unsigned int allZeros = 0;
    for (int i = 0; i < 1000; ++i) {
        unsigned int const drawn = drawContentID(1);
        EXPECT_NE(1U, drawn);
        EXPECT_NE(0U, drawn);
        EXPECT_NE(0xFFFFFFFFU, drawn);
        allOnes |= drawn;
        allZeros |= ~drawn;
    }
    EXPECT_EQ(0xFFFFFFFFU, allOnes);
    EXPECT_EQ(0xFFFFFFFFU, allZeros);
}

TEST(WriteContentID, FillsItsPlaceUpWithZeros) {
    constexpr char kHead[] = "encoding=\"UTF-8\"\n";
    for (char const* const place : {"00000001", "ffffffff", "1", "abcdef", "ABCDEF1"}) {
        EXPECT_EQ(std::string(kHead) + "CID=0000beef\n",
                  textWith(std::string(kHead) + "CID=" + place + "\n", 0xBEEF))
            << place;
    }
    EXPECT_EQ("CID=00deadbeef\n", textWith("CID=0000000001\n", 0xDEADBEEF));
}

TEST(WriteContentID, ACommentMakesUpForThePlaceOfALongText) {
    std::string const head = "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\n";
    std::string const rest = "yxLong=" + std::string(900, 'x') + "\n";
    EXPECT_EQ(head + "CID=deadbeef\n# Extent desc\n" + rest,
              textWith(head + "CID=1\n# Extent description\n" + rest, 0xDEADBEEF));
    EXPECT_EQ(head + "CID=deadbeef\n# Extent descriptio\n" + rest,
              textWith(head + "CID=abcdef1\n# Extent description\n" + rest, 0xDEADBEEF));
}

TEST(WriteContentID, KeepsItsPlaceWhereLinesWouldMoveFromSectorToSector) {
    std::string const text =
        "encoding=\"UTF-8\"\nCID=abcdef\nyxLong=" + std::string(900, 'x') + "\n";
    CVMDKDescriptor descriptor(toBuffer({text.begin(), text.end()}));
    EXPECT_EQ(0xADBEEFU, writeContentID(descriptor, 0xDEADBEEF));
    EXPECT_EQ(1, countChangedSectors(text, descriptor.toString().toStdString()));
}

TEST(WriteContentID, APlaceOfFewDigitsGrowsInAnyCase) {
    std::string const rest = "yxLong=" + std::string(900, 'x') + "\n";
    EXPECT_EQ("encoding=\"UTF-8\"\nCID=deadbeef\n" + rest,
              textWith("encoding=\"UTF-8\"\nCID=12345\n" + rest, 0xDEADBEEF));
}

TEST_F(ContentIDChangeTest, IsDoneOnceAndBroughtToTheDevice) {
    createSafe({});
    yx::P<kelm::CVMDKDisk> const disk = open(kReadWrite);
    unsigned int const before = disk->getDescriptor()->getContentID();
    ContentIDChange change(*disk);
    EXPECT_EQ(before, disk->getDescriptor()->getContentID());
    change.ensureDone();
    unsigned int const after = disk->getDescriptor()->getContentID();
    EXPECT_NE(before, after);
    change.ensureDone();
    DiskTest::writeAt(*disk, 0, pattern(100, 1));
    EXPECT_EQ(after, disk->getDescriptor()->getContentID());
    EXPECT_EQ(after, kelm::CVMDKDescriptorAccessor(
                         kelm::openVMDKFileStream(files.get(), uriOf("disk.vmdk"), kReadOnly).get(),
                         kReadOnly)
                         .getDescriptor()
                         ->getContentID());
}

TEST_F(ContentIDChangeTest, IsTriedAgainAfterAFailure) {
    createSafe({});
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    yx::P<kelm::CVMDKDisk> const disk = yx::makeObject<kelm::CVMDKDisk>(
        faulty.get(), uriOf("disk.vmdk"), kReadWrite, "", 1, nullptr, nullptr);
    std::string const before = disk->getDescriptor()->toString().toStdString();
    ContentIDChange change(*disk);
    faulty->add({.kinds = {FileOperation::Kind::Write}, .code = yx::CIOError::NoSpace});
    EXPECT_THROW(change.ensureDone(), yx::CIOError);
    EXPECT_EQ(before, disk->getDescriptor()->toString().toStdString());
    change.ensureDone();
    EXPECT_NE(before, disk->getDescriptor()->toString().toStdString());
}

TEST_F(ContentIDChangeTest, NeverComesBackWhateverAnotherProgramWrote) {
    for (char const* const first : {"1", "00000001", "f", "12345", "ABCDEF0"}) {
        SCOPED_TRACE(first);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        putExtent("disk-s001.vmdk", 4);
        putText("disk.vmdk", "# Disk DescriptorFile\nversion=1\nCID=" + std::string(first) +
                                 "\nparentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n\n"
                                 "# Extent description\nRW 512 SPARSE \"disk-s001.vmdk\"\n");
        std::set<std::string> seen{first};
        for (int opening = 0; opening < 100; ++opening) {
            std::string const before = textOf("disk.vmdk");
            writeTo(*openSafe(), 0, pattern(100, 1));
            std::string const after = textOf("disk.vmdk");
            std::size_t const at = after.find("CID=") + 4;
            std::string const contentID = after.substr(at, after.find('\n', at) - at);
            EXPECT_EQ(8U, contentID.size());
            EXPECT_TRUE(seen.insert(contentID).second) << contentID;
            // The first opening also adds the encoding.
            if (opening > 0) {
                EXPECT_EQ(before.size(), after.size());
            }
        }
    }
}

TEST_F(ContentIDChangeTest, ChangesOneSectorOfEveryNewDisk) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        { createSafe(kind, name); }
        for (int opening = 0; opening < 5; ++opening) {
            std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadWrite, kind.password);
            std::string const before = disk->getDisk().getDescriptor()->toString().toStdString();
            disk->write(0, "x", 1);
            std::string const after = disk->getDisk().getDescriptor()->toString().toStdString();
            EXPECT_EQ(1, countChangedSectors(before, after));
            EXPECT_EQ(before.size(), after.size());
        }
    }
}

} // namespace
} // namespace test_support
