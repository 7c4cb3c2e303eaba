#include "host/disk/chain_grains.h"

#include "tests/host/host_fixture.h"
#include "tests/support/filled_foreign_chain.h"

namespace test_support {
namespace {

using kelm::host::ChainGrains;
using kelm::host::DiskLayout;
using kelm::host::FileGrain;

class ChainGrainsTest : public HostTest {
protected:
    static constexpr __int64 kSector = 512;

    void make(ForeignDisk const& disk, std::string const& parent = "") {
        makeForeignDisk(*files, yx::CURI("mem:///disks"), disk, parent);
    }

    void put(std::string const& name, __int64 position, Bytes const& bytes) {
        DiskTest::writeAt(*open(kReadWrite, "", name), position, bytes);
    }

    /// Of the disk with that main file.
    ChainGrains& grainsOf(std::string const& name, std::string const& password = "") {
        m_disk = open(kReadOnly, password.c_str(), name);
        m_grains.emplace(files.get(), *m_disk, DiskLayout(*m_disk));
        return *m_grains;
    }

    bool isWritten(__int64 position, __int64 bytes) {
        return m_grains->isWritten(*m_disk, position, bytes);
    }
    bool isWrittenHere(__int64 position, __int64 bytes) {
        return m_grains->isWrittenHere(*m_disk, position, bytes);
    }
    bool canBeReadPrepared(__int64 grain) {
        return m_grains->findPrepared(*m_disk, grain).has_value();
    }

    static void expectGrain(FileGrain const& grain, __int64 startSectors, __int64 endSectors,
                            __int64 parentStartSectors, bool isGrainOfDisk) {
        EXPECT_EQ(startSectors * kSector, grain.startBytes);
        EXPECT_EQ(endSectors * kSector, grain.endBytes);
        EXPECT_EQ(parentStartSectors * kSector, grain.parentStartBytes);
        EXPECT_EQ(isGrainOfDisk, grain.isGrainOfDisk);
    }

    yx::P<kelm::CVMDKDisk> m_disk;
    std::optional<ChainGrains> m_grains;
};

TEST_F(ChainGrainsTest, EveryExtentHasGrainsOfItsOwn) {
    make({"disk.vmdk", {{256, 128}, {1024, 512}, {128, 128, true}, {128, 8}, {300, 128}}});
    ChainGrains& grains = grainsOf("disk.vmdk");
    expectGrain(grains.at(128 * kSector + 5), 128, 256, 128, true);
    // The third grain of the disk, but of the size that the extent has.
    expectGrain(grains.at(800 * kSector), 768, 1280, 3 * 512, false);
    expectGrain(grains.at(1280 * kSector), 1280, 1408, 1280, false);
    expectGrain(grains.at(1420 * kSector), 1416, 1424, (11 + 1) * 8, false);
    expectGrain(grains.at(1664 * kSector), 1664, 1792, 1664, true);
    expectGrain(grains.at(1835 * kSector), 1792, 1836, 1792, false);
}

TEST_F(ChainGrainsTest, ExtentThatBeginsWithinAGrainIsReadFromTheNextInTheParent) {
    make({"disk.vmdk", {{100, 128}, {256, 128}}});
    ChainGrains& grains = grainsOf("disk.vmdk");
    expectGrain(grains.at(0), 0, 100, 0, false);
    expectGrain(grains.at(100 * kSector), 100, 228, 128, false);
    expectGrain(grains.at(355 * kSector), 228, 356, 256, false);
}

TEST_F(ChainGrainsTest, AsksEveryGrainOfAParentThatLiesUnderOneOfTheChild) {
    make({"parent.vmdk", {{1024, 8}}});
    put("parent.vmdk", 65536 + 5 * 4096, fromText("x"));
    make({"child.vmdk", {{1024, 128}}}, "parent.vmdk");
    grainsOf("child.vmdk");
    EXPECT_FALSE(isWritten(0, 65536));
    EXPECT_TRUE(isWritten(65536, 65536));
    EXPECT_FALSE(isWritten(65536, 5 * 4096));
    EXPECT_TRUE(isWritten(65536 + 6 * 4096 - 1, 1));
    EXPECT_FALSE(isWritten(65536 + 6 * 4096, 10 * 4096));
    EXPECT_FALSE(isWrittenHere(65536, 65536));
    EXPECT_FALSE(canBeReadPrepared(0));
    EXPECT_FALSE(canBeReadPrepared(1));
}

TEST_F(ChainGrainsTest, AsksTheGrandparentWhereTheChildIsNotWhereItsParentsGrainBegins) {
    make({"grandparent.vmdk", {{4096, 128}}});
    put("grandparent.vmdk", 3 * 65536, fromText("x"));
    make({"parent.vmdk", {{4096, 2048}}}, "grandparent.vmdk");
    make({"child.vmdk", {{4096, 128}}}, "parent.vmdk");
    grainsOf("child.vmdk");
    EXPECT_FALSE(isWritten(0, 3 * 65536));
    EXPECT_TRUE(isWritten(3 * 65536, 65536));
    EXPECT_FALSE(isWritten(4 * 65536, 4096 * kSector - 4 * 65536));
}

TEST_F(ChainGrainsTest, CountsWhatNoDiskOfTheChainHolds) {
    make({"parent.vmdk", {{1024, 128}, {1024, 128}}});
    put("parent.vmdk", 3 * 65536, pattern(65536, 1));
    make({"child.vmdk", {{1536, 128}, {1536, 128}}}, "parent.vmdk");
    put("child.vmdk", 20 * 65536, pattern(65536, 2));
    ChainGrains& grains = grainsOf("child.vmdk");
    auto const count = [&](__int64 grain, __int64 maxGrains) {
        return grains.countUnwrittenBytes(*m_disk, grain * 65536, maxGrains * 65536);
    };
    EXPECT_EQ(3 * 65536, count(0, 24));
    EXPECT_EQ(2 * 65536, count(0, 2));
    EXPECT_EQ(0, count(3, 24));
    // Up to the end of the parent's extent, the child's, and what the child holds.
    EXPECT_EQ(4 * 65536, count(4, 20));
    EXPECT_EQ(4 * 65536, count(8, 16));
    EXPECT_EQ(4 * 65536, count(16, 8));
    EXPECT_EQ(0, count(20, 4));
    EXPECT_EQ(3 * 65536, count(21, 3));
}

TEST_F(ChainGrainsTest, CountsNothingThatIsWrittenInAnyChain) {
    for (unsigned int seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        FilledForeignChain const chain(*files, yx::CURI("mem:///disks"), seed);
        std::string password;
        for (std::size_t level = 0; level < chain.getLength(); ++level) {
            // A disk has that of its parents.
            if (!chain.disk(level).password.empty())
                password = chain.disk(level).password;
            ChainGrains& grains = grainsOf(chain.disk(level).name, password);
            __int64 const size = m_disk->getSizeBytes();
            for (__int64 position = 0; position < size; position = grains.at(position).endBytes) {
                __int64 const bytes =
                    grains.countUnwrittenBytes(*m_disk, position, size - position);
                ASSERT_LE(bytes, size - position);
                ASSERT_FALSE(isWritten(position, bytes)) << position << " " << bytes;
            }
        }
    }
}

TEST_F(ChainGrainsTest, HoldsARangeOnlyWithAllOfItsGrains) {
    make({"disk.vmdk", {{256, 128}, {128, 8}}});
    put("disk.vmdk", 2 * 65536, pattern(65536 - 4096, 1));
    grainsOf("disk.vmdk");
    EXPECT_TRUE(isWrittenHere(2 * 65536, 65536 - 4096));
    EXPECT_FALSE(isWrittenHere(2 * 65536, 65536));
    EXPECT_TRUE(isWritten(2 * 65536, 65536));
    EXPECT_FALSE(isWritten(3 * 65536 - 4096, 4096));
}

TEST_F(ChainGrainsTest, PreparedFormNeedsTheSameGrainsDownToTheHolder) {
    make({"regular.vmdk", {{512, 128, true}}});
    put("regular.vmdk", 0, pattern(65536, 1));
    make({"mixed.vmdk", {{128, 128, true}, {128, 128, false}, {100, 128, true}}}, "regular.vmdk");
    make({"plain.vmdk", {{512, 128, false}}}, "regular.vmdk");
    for (std::string const parent : {"regular", "mixed", "plain"}) {
        SCOPED_TRACE(parent);
        std::string const child = "child-of-" + parent + ".vmdk";
        make({child, {{512, 128, true}}}, parent + ".vmdk");
        put(child, 2 * 65536, pattern(65536, 1));
        grainsOf(child);
        EXPECT_EQ(parent != "plain", canBeReadPrepared(0));
        EXPECT_EQ(parent == "regular", canBeReadPrepared(1));
        // Here, whatever the parent is like.
        EXPECT_TRUE(canBeReadPrepared(2));
        // Past the end of the second one.
        EXPECT_EQ(parent != "plain", canBeReadPrepared(3));
    }
}

TEST_F(ChainGrainsTest, NothingIsOutsideOfTheDisk) {
    make({"disk.vmdk", {{256, 128}}});
    ChainGrains& grains = grainsOf("disk.vmdk");
    for (__int64 const position : {__int64{-1}, 256 * kSector}) {
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::BadPosition,
                          "No grain of the disk holds the position: " + std::to_string(position),
                          {{"diskSize", "131072"}}, [&] { grains.at(position); }));
    }
    EXPECT_FALSE(canBeReadPrepared(-1));
    EXPECT_FALSE(canBeReadPrepared(2));
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    EXPECT_THROW(disk->isGrainWritten(2), yx::CIOError);
    EXPECT_THROW(disk->isGrainWrittenHere(-1), yx::CIOError);
}

TEST_F(ChainGrainsTest, MissingExtentFileIsNamed) {
    make({"disk.vmdk", {{256, 128}, {256, 128}}});
    files->deleteFile(uriOf("disk-s00001.vmdk"), false);
    ChainGrains& grains = grainsOf("disk.vmdk");
    expectGrain(grains.at(0), 0, 128, 0, true);
    try {
        grains.at(256 * kSector);
        ADD_FAILURE() << "threw nothing";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NotFound, error.getIOCode());
        EXPECT_EQ("mem:///disks/disk-s00001.vmdk", *error.getParams().find("uri"));
    }
}

} // namespace
} // namespace test_support
