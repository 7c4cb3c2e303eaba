#include "host/disk/chain_map.h"

#include "host/disk/chain_members.h"
#include "host/disk/parent_link.h"
#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace {

using kelm::host::ChainMap;
using kelm::host::listChainMembers;
using kelm::host::MappedGrain;

constexpr int kManyTables = 1024;
constexpr __int64 kRunGrains = 16384;
constexpr __int64 kThreeRunsBytes = 3 * kRunGrains * kGrainBytes;
constexpr int kNowhere = -1;
constexpr int kNotKnown = -2;

class ChainMapTest : public HostTest {
protected:
    /// A chain of disks "0.vmdk", "1.vmdk" and so on, the oldest first, with these grains each.
    void putChain(std::vector<std::vector<int>> const& grains, DiskKind const& kind = {},
                  __int64 sizeBytes = kSmallestDiskBytes) {
        for (std::size_t i = 0; i < grains.size(); ++i) {
            std::unique_ptr<SafeDisk> const disk =
                createSafe(kind, nameOf(i), i == 0 ? "" : nameOf(i - 1), sizeBytes);
            for (int const grain : grains[i])
                writeGrain(*disk, grain, contentOf(i, grain));
            disk->flush();
        }
    }

    static std::string nameOf(std::size_t level) { return std::to_string(level) + ".vmdk"; }

    static Bytes contentOf(std::size_t level, int grain) {
        return textPattern(kGrainBytes, static_cast<unsigned int>(level * 1000) +
                                            static_cast<unsigned int>(grain));
    }

    std::shared_ptr<ChainMap> mapOf(SafeDisk& disk, int maxTables = kManyTables) {
        return ChainMap::tryMake(disk.getFileSystem(), listChainMembers(disk), maxTables);
    }

    static int levelOf(ChainMap& map, __int64 grain) {
        std::optional<MappedGrain> const found = map.find(grain);
        return found ? found->level : kNotKnown;
    }

    std::unique_ptr<SafeDisk> openFaulty(FaultyFileSystem& faulty, std::string const& name) {
        return std::make_unique<SafeDisk>(&faulty, uriOf(name), kReadOnly, "");
    }

    static std::string messageOf(std::function<void()> const& step) {
        try {
            step();
        } catch (yx::CIOError const& error) {
            return error.getMessage().toStdString();
        }
        return "no error";
    }
};

TEST_F(ChainMapTest, TellsTheNearestDiskThatHoldsAGrain) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        putChain({{0, 1, 2, 3, 127}, {1, 2, 60}, {2, 90}}, kind);
        std::unique_ptr<SafeDisk> const disk = openSafe("2.vmdk", kReadOnly, kind.password);
        std::shared_ptr<ChainMap> const map = mapOf(*disk);
        ASSERT_TRUE(map);
        EXPECT_EQ(map->getLevelCount(), 3);
        EXPECT_EQ(levelOf(*map, 0), 2);
        EXPECT_EQ(levelOf(*map, 1), 1);
        EXPECT_EQ(levelOf(*map, 2), 0);
        EXPECT_EQ(levelOf(*map, 3), 2);
        EXPECT_EQ(levelOf(*map, 4), kNowhere);
        EXPECT_EQ(levelOf(*map, 60), 1);
        EXPECT_EQ(levelOf(*map, 90), 0);
        EXPECT_EQ(levelOf(*map, 127), 2);
        EXPECT_EQ(levelOf(*map, -1), kNotKnown);
        EXPECT_EQ(levelOf(*map, 128), kNotKnown);
    }
}

TEST_F(ChainMapTest, TellsThePlaceInTheFile) {
    putChain({{5, 3}});
    std::unique_ptr<SafeDisk> const disk = openSafe("0.vmdk", kReadOnly);
    std::shared_ptr<ChainMap> const map = mapOf(*disk);
    ASSERT_TRUE(map);
    for (int const grain : {3, 5}) {
        std::optional<MappedGrain> const found = map->find(grain);
        ASSERT_TRUE(found && found->isHeld());
        EXPECT_EQ(found->slotSizeSectors, 0);
        EXPECT_EQ(found->extent->uri, uriOf("0.vmdk"));
        EXPECT_EQ(found->extent->fileDescriptor, -1);
        Bytes const file = toBytes(files->getFile(uriOf("0.vmdk")));
        EXPECT_TRUE(
            sameBytes(contentOf(0, grain),
                      slice(file, static_cast<std::size_t>(found->posSectors) * 512, kGrainBytes)));
    }
    EXPECT_EQ(map->find(3)->posSectors, map->find(5)->posSectors + 128);
}

TEST_F(ChainMapTest, ForgetsTablesAboveItsLimitAndMergesThemAgain) {
    putChain({{0, 1, 700}}, {}, kThreeRunsBytes);
    {
        std::unique_ptr<SafeDisk> const child = createSafe({}, "1.vmdk", "0.vmdk", kThreeRunsBytes);
        child->write(kRunGrains * kGrainBytes, "a", 1);
        child->write((3 * kRunGrains - 1) * kGrainBytes, "b", 1);
        child->write(kGrainBytes, "c", 1);
        child->flush();
    }
    std::unique_ptr<SafeDisk> const disk = openSafe("1.vmdk", kReadOnly);
    for (int const limit : {0, 1, 2, kManyTables}) {
        SCOPED_TRACE(limit);
        std::shared_ptr<ChainMap> const map = mapOf(*disk, limit);
        ASSERT_TRUE(map);
        for (int round = 0; round < 3; ++round) {
            EXPECT_EQ(levelOf(*map, 0), 1);
            EXPECT_EQ(levelOf(*map, kRunGrains), 0);
            EXPECT_EQ(levelOf(*map, 3 * kRunGrains - 1), 0);
            EXPECT_EQ(levelOf(*map, 700), 1);
            EXPECT_EQ(levelOf(*map, 1), 0);
            EXPECT_EQ(levelOf(*map, 2 * kRunGrains), kNowhere);
        }
    }
}

TEST_F(ChainMapTest, ComesBackToExtentsWhoseDirectoriesAreGone) {
    constexpr __int64 kSizeBytes = 3 * kRunGrains * kGrainBytes / 2;
    std::vector<int> const grains{0, 1000, 9000, 16383, 16384, 20000, 24575};
    {
        DiskKind const kind{"manyExtents", false, 4 << 20, "", false};
        std::unique_ptr<SafeDisk> const disk = createSafe(kind, "0.vmdk", "", kSizeBytes);
        for (int const grain : grains)
            disk->write(grain * kGrainBytes, "a", 1);
        disk->flush();
    }
    std::unique_ptr<SafeDisk> const disk = openSafe("0.vmdk", kReadOnly);
    ASSERT_GT(disk->listExtents().size(), 300U);
    // One run at a time.
    std::shared_ptr<ChainMap> const map = mapOf(*disk, 0);
    ASSERT_TRUE(map);
    for (int round = 0; round < 3; ++round) {
        for (int const grain : grains) {
            EXPECT_EQ(levelOf(*map, grain), 0) << grain;
            EXPECT_EQ(levelOf(*map, grain ^ 2), kNowhere) << grain;
        }
    }
}

TEST_F(ChainMapTest, DoesNotKnowTheGrainInWhichAShorterParentEnds) {
    {
        std::unique_ptr<SafeDisk> const parent = createSafe({}, "parent.vmdk");
        for (int const grain : {0, 2, 3})
            writeGrain(*parent, grain, contentOf(0, grain));
        parent->flush();
    }
    putShortChild();
    std::unique_ptr<SafeDisk> const disk = openSafe("child.vmdk", kReadOnly);
    std::shared_ptr<ChainMap> const whole = mapOf(*disk);
    ASSERT_TRUE(whole);
    EXPECT_EQ(levelOf(*whole, 0), 1);
    EXPECT_EQ(levelOf(*whole, 2), 1);
    EXPECT_EQ(levelOf(*whole, 3), kNotKnown);

    createSafe({}, "grandchild.vmdk", "child.vmdk");
    std::unique_ptr<SafeDisk> const longer = openSafe("grandchild.vmdk", kReadOnly);
    std::shared_ptr<ChainMap> const map = mapOf(*longer);
    ASSERT_TRUE(map);
    EXPECT_EQ(levelOf(*map, 0), 2);
    EXPECT_EQ(levelOf(*map, 1), kNowhere);
    EXPECT_EQ(levelOf(*map, 2), kNotKnown);
    EXPECT_EQ(levelOf(*map, 3), kNowhere);
    longer->mergeChain();
    Bytes expected = zeros(4 * kGrainBytes);
    Bytes const first = contentOf(0, 0);
    Bytes const third = slice(contentOf(0, 2), 0, 300 * 512 - 2 * kGrainBytes);
    std::copy(first.begin(), first.end(), expected.begin());
    std::copy(third.begin(), third.end(), expected.begin() + 2 * kGrainBytes);
    EXPECT_TRUE(sameBytes(expected, readFrom(*longer, 0, 4 * kGrainBytes)));
}

TEST_F(ChainMapTest, ServesNoChainThatIsNotWhole) {
    putChain({{0}, {1}, {2}});
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("2.vmdk", kReadOnly);
        ASSERT_TRUE(mapOf(*disk));
    }
    {
        std::unique_ptr<SafeDisk> const parent = openSafe("0.vmdk");
        writeGrain(*parent, 9, contentOf(0, 9));
        parent->flush();
    }
    {
        std::unique_ptr<SafeDisk> const disk = openSafe("2.vmdk", kReadOnly);
        EXPECT_FALSE(mapOf(*disk));
    }
    files->deleteFile(uriOf("0.vmdk"), false);
    std::unique_ptr<SafeDisk> const disk = openSafe("2.vmdk", kReadOnly);
    EXPECT_FALSE(mapOf(*disk));
    disk->mergeChain();
    EXPECT_TRUE(sameBytes(contentOf(2, 2), readGrain(*disk, 2)));
    LogCapture const log;
    EXPECT_EQ(messageOf([&] { readGrain(*disk, 0); }),
              "Cannot open the file: No such file or directory");
}

TEST_F(ChainMapTest, ServesNoChainOfSeveralGrainSizes) {
    putExtent("parent-s00000.vmdk", 64, 256);
    putText("parent.vmdk", "# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\nCID=12345678\n"
                           "parentCID=ffffffff\ncreateType=\"twoGbMaxExtentSparse\"\n"
                           "RW 16384 SPARSE \"parent-s00000.vmdk\"\n" +
                               std::string(600, '\0'));
    createSafe({}, "child.vmdk", "parent.vmdk");
    std::unique_ptr<SafeDisk> const parent = openSafe("parent.vmdk", kReadOnly);
    EXPECT_TRUE(mapOf(*parent));
    std::unique_ptr<SafeDisk> const child = openSafe("child.vmdk", kReadOnly);
    EXPECT_FALSE(mapOf(*child));
}

TEST_F(ChainMapTest, LeavesTablesThatCannotBeReadToTheUsualRoad) {
    putChain({{0}, {1}});
    yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
    std::unique_ptr<SafeDisk> const disk = openFaulty(*faulty, "1.vmdk");
    std::unique_ptr<SafeDisk> const plain = openFaulty(*faulty, "1.vmdk");
    disk->mergeChain();
    faulty->add({.kinds = {FileOperation::Kind::Read}, .sticky = true, .file = "0.vmdk"});
    LogCapture const log;
    // The disk holds it by itself.
    EXPECT_TRUE(sameBytes(contentOf(1, 1), readGrain(*disk, 1)));
    EXPECT_EQ(messageOf([&] { readGrain(*disk, 0); }), "Injected failure.");
    EXPECT_EQ(messageOf([&] { readGrain(*plain, 0); }), "Injected failure.");
    EXPECT_GT(faulty->hits(), 0);
}

TEST_F(ChainMapTest, MergedDiskReadsAndAnswersAsBefore) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        putChain({{0, 1, 2, 3, 127}, {1, 2, 60}, {2, 90}}, kind);
        std::unique_ptr<SafeDisk> const plain = openSafe("2.vmdk", kReadOnly, kind.password);
        std::unique_ptr<SafeDisk> const merged = openSafe("2.vmdk", kReadOnly, kind.password);
        merged->mergeChain();
        auto const bytes = static_cast<std::size_t>(plain->getSizeBytes());
        EXPECT_TRUE(sameBytes(readFrom(*plain, 0, bytes), readFrom(*merged, 0, bytes)));
        Buffer expected;
        Buffer actual;
        for (__int64 grain = 0; grain < plain->getGrainCount(); ++grain) {
            SCOPED_TRACE(grain);
            EXPECT_EQ(plain->isGrainWritten(grain), merged->isGrainWritten(grain));
            EXPECT_EQ(plain->tryReadPreparedGrain(grain, expected),
                      merged->tryReadPreparedGrain(grain, actual));
            EXPECT_TRUE(sameBytes(toBytes(expected), toBytes(actual)));
            EXPECT_EQ(plain->tryReadEncipheredGrain(grain, expected),
                      merged->tryReadEncipheredGrain(grain, actual));
            EXPECT_TRUE(sameBytes(toBytes(expected), toBytes(actual)));
        }
    }
}

TEST_F(ChainMapTest, MergingADiskThatIsWrittenToDoesNothing) {
    putChain({{0}, {1}});
    std::unique_ptr<SafeDisk> const disk = openSafe("1.vmdk");
    disk->mergeChain();
    EXPECT_TRUE(sameBytes(contentOf(0, 0), readGrain(*disk, 0)));
    writeGrain(*disk, 0, contentOf(1, 0));
    writeGrain(*disk, 7, contentOf(1, 7));
    EXPECT_TRUE(sameBytes(contentOf(1, 0), readGrain(*disk, 0)));
    EXPECT_TRUE(disk->isGrainWritten(7));
}

} // namespace
} // namespace test_support
