#include "host/disk/dead_tails.h"

#include "kelm/format/internal/little_endian.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

using kelm::host::dropDeadTails;

namespace test_support {
namespace {

/// Where a header has the sectors of its two grain directories.
constexpr std::size_t kRedundantDirectoryField = 48;
constexpr std::size_t kDirectoryField = 56;
constexpr std::size_t kTrailBytes = 3 * 512;

class DeadTails : public HostTest {
protected:
    void makeDisk(DiskKind const& kind) {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind);
        writeTo(*disk, 0, mixedContent());
        writeTo(*disk, kSmallestDiskBytes - kGrainBytes, pattern(1000, 4));
    }

    Bytes fileBytes(std::string const& name = "disk.vmdk") {
        return toBytes(files->getFile(uriOf(name)));
    }

    void putBytes(Bytes const& bytes) { files->putFile(uriOf("disk.vmdk"), toBuffer(bytes)); }

    bool drop(char const* password = "") {
        LogCapture const quiet;
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, password);
        return dropDeadTails(*disk, nullptr);
    }

    /// Where the first entry of the first grain table lies, by the directory that a field of the
    /// header names.
    static std::size_t firstEntry(Bytes const& file, std::size_t field) {
        auto const sectorAt = [&file](std::size_t position) {
            return std::size_t{kelm::loadLittleEndian<unsigned int>(file.data() + position)} * 512;
        };
        return sectorAt(sectorAt(field));
    }
};

TEST_F(DeadTails, GoUpToTheLastGrainThatATableNames) {
    for (DiskKind const& kind : {kindNamed("plain"), kindNamed("compressed"),
                                 kindNamed("encrypted"), kindNamed("encryptedCompressed")}) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        Bytes const whole = fileBytes();
        for (std::size_t const deadBytes :
             {std::size_t{512}, std::size_t{65536}, std::size_t{200000}}) {
            SCOPED_TRACE(deadBytes);
            // As a kill leaves it: what was at the end is overwritten.
            Bytes killed(whole.begin(),
                         whole.end() - (kind.compressed ? std::ptrdiff_t{kTrailBytes} : 0));
            Bytes const dead = pattern(deadBytes, 9);
            killed.insert(killed.end(), dead.begin(), dead.end());
            putBytes(killed);
            EXPECT_TRUE(drop(kind.password));
            EXPECT_TRUE(sameBytes(whole, fileBytes()));
            EXPECT_FALSE(drop(kind.password));
        }
        EXPECT_TRUE(sameBytes(whole, fileBytes()));
        files->deleteFile(uriOf("disk.vmdk"), false);
    }
}

/// As a power cut leaves it that comes between the two tables in which a grain stands.
TEST_F(DeadTails, BeginBehindTheLastRecordAlsoWhereItsSlotIsTooSmall) {
    makeDisk(kindNamed("compressed"));
    Bytes const expected = contentAfterReopening();
    {
        yx::P<yx::IIOStream> const stream =
            kelm::openVMDKFileStream(files.get(), uriOf("disk.vmdk"), kReadWrite);
        yx::CDataInStream in(stream.get());
        kelm::CVMDKSparseExtentHeader header;
        header.load(in);
        auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
        auto const directory = yx::makeObject<kelm::CVMDKGrainDirectory>(stream.get(), kReadWrite,
                                                                         header, cache.get());
        __int64 const lastGrain = kSmallestDiskBytes / kGrainBytes - 1;
        __int64 posSectors = 0;
        __int64 slotSectors = 0;
        directory->getGrainInfo(lastGrain, posSectors, slotSectors);
        ASSERT_GT(slotSectors, 1);
        directory->setGrainInfo(lastGrain, posSectors, 1);
        directory->flushChangesToStream();
    }
    drop();
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening()));
}

TEST_F(DeadTails, OfAnEmptyDiskGoUpToItsTables) {
    createSafe({});
    Bytes const whole = fileBytes();
    Bytes killed = whole;
    killed.resize(whole.size() + 65536, 7);
    putBytes(killed);
    EXPECT_TRUE(drop());
    EXPECT_TRUE(sameBytes(whole, fileBytes()));
}

TEST_F(DeadTails, WarnOfWhatTheyWere) {
    makeDisk({});
    Bytes killed = fileBytes();
    killed.resize(killed.size() + 65536, 7);
    putBytes(killed);
    std::unique_ptr<SafeDisk> const disk = openSafe();
    LogCapture const log;
    EXPECT_TRUE(dropDeadTails(*disk, nullptr));
    ASSERT_EQ(1U, log.entries().size());
    EXPECT_EQ("Removed 65536 bytes that a program which was killed had left in the file "
              "'mem:///disks/disk.vmdk'.",
              log.entries().front().message);
}

TEST_F(DeadTails, TakeRedundantTablesThatLagWithThem) {
    for (char const* const name : {"plain", "compressed"}) {
        SCOPED_TRACE(name);
        makeDisk(kindNamed(name));
        Bytes const whole = fileBytes();
        Bytes killed = whole;
        std::fill_n(killed.begin() +
                        static_cast<std::ptrdiff_t>(firstEntry(whole, kRedundantDirectoryField)),
                    4, static_cast<unsigned char>(0));
        ASSERT_FALSE(sameBytes(whole, killed));
        putBytes(killed);
        EXPECT_TRUE(drop());
        EXPECT_TRUE(sameBytes(whole, fileBytes()));
        files->deleteFile(uriOf("disk.vmdk"), false);
    }
}

TEST_F(DeadTails, AreNotWhatADamagedTableHasLost) {
    makeDisk({});
    Bytes damaged = fileBytes();
    // A sector of the table, as a device loses it: all grains seem to be nobody's.
    std::fill_n(damaged.begin() + static_cast<std::ptrdiff_t>(firstEntry(damaged, kDirectoryField)),
                512, static_cast<unsigned char>(0));
    putBytes(damaged);
    EXPECT_THROW(drop(), yx::CIOError);
    EXPECT_TRUE(sameBytes(damaged, fileBytes()));
}

TEST_F(DeadTails, OfASplitDiskAreDroppedInEachFile) {
    makeDisk(kindNamed("split"));
    std::map<std::string, Bytes> whole;
    for (std::string const& name : fileNames()) {
        whole[name] = fileBytes(name);
        if (name == "disk.vmdk")
            continue;
        Bytes killed = whole[name];
        killed.resize(killed.size() + 65536, 7);
        files->putFile(uriOf(name), toBuffer(killed));
    }
    ASSERT_GT(whole.size(), 2U);
    EXPECT_TRUE(drop());
    for (auto const& [name, bytes] : whole)
        EXPECT_TRUE(sameBytes(bytes, fileBytes(name))) << name;
}

} // namespace
} // namespace test_support
