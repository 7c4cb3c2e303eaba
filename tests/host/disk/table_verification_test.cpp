#include "host/disk/table_verification.h"

#include "kelm/format/internal/little_endian.h"
#include "tests/host/host_fixture.h"

using kelm::host::CancelFlag;
using kelm::host::DamagedTablePlace;
using kelm::host::findDamagedTables;
using kelm::host::verifyTables;

namespace test_support {
namespace {

class TableVerificationTest : public HostTest {
protected:
    /// A disk with data in all its extents.
    void makeDisk(std::string const& name, DiskKind const& kind = {},
                  std::string const& parent = "") {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, name, parent);
        for (__int64 position = 0; position < kSmallestDiskBytes; position += 1 << 20)
            writeTo(*disk, position, pattern(1000, 1));
    }

    /// Zeros in the place of the first main table.
    void loseFirstTable(std::string const& file) {
        Bytes content = toBytes(files->getFile(uriOf(file)));
        std::size_t const directory = sectorAt(content, 56);
        std::size_t const table = sectorAt(content, directory);
        std::fill_n(content.begin() + static_cast<std::ptrdiff_t>(table), 2048, std::uint8_t{0});
        files->putFile(uriOf(file), toBuffer(content));
    }

    std::vector<std::string> listDamage(std::string const& name, char const* password = "") {
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, password);
        std::vector<std::string> found;
        findDamagedTables(
            *disk, listChainMembers(*disk), nullptr, [&](DamagedTablePlace const& place) {
                found.push_back(place.file.getName().toStdString() + " " +
                                std::to_string(place.extent.startBytes) + " " +
                                std::to_string(place.table.tableIndex) + " " + place.table.text);
            });
        return found;
    }

    using Found = std::vector<std::string>;

private:
    static std::size_t sectorAt(Bytes const& content, std::size_t position) {
        return std::size_t{kelm::loadLittleEndian<unsigned int>(content.data() + position)} * 512;
    }
};

TEST_F(TableVerificationTest, FindsNothingInSoundDisksOfEveryKind) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(std::string(kind.name) + ".vmdk", kind);
        EXPECT_EQ(Found{}, listDamage(std::string(kind.name) + ".vmdk", kind.password));
        verifyTables(*openSafe(std::string(kind.name) + ".vmdk", kReadOnly, kind.password),
                     nullptr);
    }
}

TEST_F(TableVerificationTest, GoesThroughTheExtentsAndThenTheParents) {
    makeDisk("one.vmdk");
    makeDisk("two.vmdk", {.fileSizeLimit = kSplitLimit}, "one.vmdk");
    makeDisk("three.vmdk", {}, "two.vmdk");
    EXPECT_EQ(Found{}, listDamage("three.vmdk"));
    for (char const* const file : {"one.vmdk", "two-s00000.vmdk", "two-s00001.vmdk", "three.vmdk"})
        loseFirstTable(file);
    __int64 const secondExtent = openSafe("two.vmdk", kReadOnly)->listExtents()[1].startBytes;
    EXPECT_EQ((Found{"three.vmdk 0 0 differs from its redundant copy",
                     "two-s00000.vmdk 0 0 differs from its redundant copy",
                     "two-s00001.vmdk " + std::to_string(secondExtent) +
                         " 0 differs from its redundant copy",
                     "one.vmdk 0 0 differs from its redundant copy"}),
              listDamage("three.vmdk"));
}

TEST_F(TableVerificationTest, TheParentsOfAnEncryptedDiskNeedNoPassword) {
    DiskKind const kind{.compressed = true, .password = "secret"};
    makeDisk("one.vmdk", kind);
    makeDisk("two.vmdk", kind, "one.vmdk");
    loseFirstTable("one.vmdk");
    EXPECT_EQ(Found{"one.vmdk 0 0 differs from its redundant copy"},
              listDamage("two.vmdk", "secret"));
}

TEST_F(TableVerificationTest, TheErrorNamesTheFirstTableAndItsStretchOfTheDisk) {
    makeDisk("disk.vmdk", {.fileSizeLimit = kSplitLimit});
    loseFirstTable("disk-s00001.vmdk");
    loseFirstTable("disk-s00002.vmdk");
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    kelm::host::DiskExtent const extent = disk->listExtents()[1];
    auto const range = [](__int64 first, __int64 end) {
        return std::to_string(first) + "-" + std::to_string(end - 1);
    };
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::CorruptData,
        "Grain table 0 differs from its redundant copy, so its grains may be lost.",
        {{"uri", "mem:///disks/disk-s00001.vmdk"},
         {"table", "0"},
         {"grains", range(extent.startBytes / kGrainBytes, extent.endBytes / kGrainBytes)},
         {"bytes", range(extent.startBytes, extent.endBytes)},
         {"damagedTables", "2"}},
        [&] { verifyTables(*disk, nullptr); }));
}

TEST_F(TableVerificationTest, PassesOverWhatIsMissing) {
    makeDisk("one.vmdk");
    makeDisk("two.vmdk", {.fileSizeLimit = kSplitLimit}, "one.vmdk");
    loseFirstTable("one.vmdk");
    loseFirstTable("two-s00001.vmdk");
    files->deleteFile(uriOf("one.vmdk"), false);
    files->deleteFile(uriOf("two-s00001.vmdk"), false);
    EXPECT_EQ(Found{}, listDamage("two.vmdk"));
}

TEST_F(TableVerificationTest, PassesOverAParentThatIsNoDisk) {
    makeDisk("one.vmdk");
    makeDisk("two.vmdk", {}, "one.vmdk");
    putText("one.vmdk", "createType=\"monolithicSparse\"\nRW -5 SPARSE \"one.vmdk\"\n");
    EXPECT_EQ(Found{}, listDamage("two.vmdk"));
    putText("one.vmdk", "");
    EXPECT_EQ(Found{}, listDamage("two.vmdk"));
}

TEST_F(TableVerificationTest, StopsWhenItIsCancelled) {
    makeDisk("disk.vmdk");
    CancelFlag cancel;
    cancel.set();
    EXPECT_THROW(verifyTables(*openSafe("disk.vmdk", kReadOnly), &cancel),
                 kelm::host::CancelledError);
}

} // namespace
} // namespace test_support
