#include "host/disk/trail_repair.h"

#include <gmock/gmock.h>

#include "host/check/disk_check.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace trail_repair_test {

namespace {

constexpr std::size_t kSector = 512;
constexpr std::size_t kTrailBytes = 3 * kSector;

class TrailRepairTest : public HostTest {
protected:
    void makeDisk(DiskKind const& kind) {
        std::unique_ptr<SafeDisk> const disk = createSafe(kind);
        writeTo(*disk, 0, mixedContent());
        disk->flush();
    }

    Bytes bytesOf(std::string const& name) { return toBytes(files->getFile(uriOf(name))); }

    void cutOff(std::string const& name, std::size_t count) {
        Bytes const file = bytesOf(name);
        files->putFile(uriOf(name), toBuffer(slice(file, 0, file.size() - count)));
    }

    std::vector<std::string> check(char const* password) {
        std::vector<std::string> findings;
        kelm::host::checkDisk(files.get(), uriOf("disk.vmdk"), password, {},
                              [&](yx::CURI const& file, std::string const& text) {
                                  findings.push_back(file.getName().toStdString() + ": " + text);
                              });
        return findings;
    }

    bool repair(std::string const& name) {
        return kelm::host::repairTrail(
            *kelm::openVMDKFileStream(files.get(), uriOf(name), kReadWrite));
    }
};

TEST_F(TrailRepairTest, OpeningForWritingMendsATrailThatWasCutOffAnywhere) {
    LogCapture const quiet;
    for (DiskKind const& kind : allDiskKinds()) {
        if (!kind.compressed)
            continue;
        for (std::size_t const count : {1, 511, 512, 700, 1024, 1535, 1536}) {
            SCOPED_TRACE(std::string(kind.name) + " without its last " + std::to_string(count));
            files = yx::makeObject<yx::CMemoryFileSystem>();
            makeDisk(kind);
            std::string const name = openSafe("disk.vmdk", kReadOnly, kind.password)
                                         ->listExtents()
                                         .front()
                                         .uri.getName()
                                         .toStdString();
            cutOff(name, count);
            EXPECT_THAT(check(kind.password), testing::Not(testing::IsEmpty()));
            openSafe("disk.vmdk", kReadWrite, kind.password);
            EXPECT_THAT(check(kind.password), testing::IsEmpty());
            EXPECT_EQ(0U, bytesOf(name).size() % kSector);
            EXPECT_TRUE(sameBytes(padded(mixedContent(), kSmallestDiskBytes),
                                  contentAfterReopening("disk.vmdk", kind.password)));
        }
    }
}

TEST_F(TrailRepairTest, ATrailBehindACutMovesToTheNextSector) {
    LogCapture const quiet;
    makeDisk({.compressed = true});
    std::size_t const length = bytesOf("disk.vmdk").size();
    cutOff("disk.vmdk", 100);
    // The library puts a new trail behind the last byte, within a sector.
    open(kReadWrite)->read(Bytes(1).data(), 1);
    EXPECT_EQ(length - 100 + kTrailBytes, bytesOf("disk.vmdk").size());
    EXPECT_FALSE(check("").empty());

    EXPECT_TRUE(repair("disk.vmdk"));
    EXPECT_EQ(length + kTrailBytes, bytesOf("disk.vmdk").size());
    EXPECT_THAT(check(""), testing::IsEmpty());
    EXPECT_FALSE(repair("disk.vmdk"));
}

TEST_F(TrailRepairTest, NothingIsOverwrittenWhereThereIsNoTrail) {
    makeDisk({.compressed = true});
    cutOff("disk.vmdk", kTrailBytes + 100);
    Bytes const before = bytesOf("disk.vmdk");
    EXPECT_TRUE(repair("disk.vmdk"));
    Bytes const after = bytesOf("disk.vmdk");
    EXPECT_TRUE(sameBytes(before, slice(after, 0, before.size())));
    EXPECT_EQ(before.size() + 100 + kTrailBytes, after.size());
}

TEST_F(TrailRepairTest, SoundFilesAndPlainOnesStayAsTheyAre) {
    for (bool const compressed : {false, true}) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeDisk({.compressed = compressed});
        if (!compressed)
            cutOff("disk.vmdk", 100);
        Bytes const before = bytesOf("disk.vmdk");
        EXPECT_FALSE(repair("disk.vmdk"));
        EXPECT_TRUE(sameBytes(before, bytesOf("disk.vmdk")));
    }
}

TEST_F(TrailRepairTest, AFileTooShortForATrailGetsOne) {
    makeDisk({.compressed = true});
    files->putFile(uriOf("disk.vmdk"), toBuffer(slice(bytesOf("disk.vmdk"), 0, 700)));
    EXPECT_TRUE(repair("disk.vmdk"));
    EXPECT_EQ(2 * kSector + kTrailBytes, bytesOf("disk.vmdk").size());
}

} // namespace

} // namespace trail_repair_test
} // namespace test_support
