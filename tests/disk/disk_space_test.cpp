#include "tests/support/disk_fixture.h"

namespace test_support {
namespace {

using DiskSpace = DiskTest;

struct Sizes {
    __int64 payload;
    __int64 inFile;
    __int64 header;
    __int64 dead;

    bool operator==(Sizes const&) const = default;
};

std::ostream& operator<<(std::ostream& stream, Sizes const& sizes) {
    return stream << "{" << sizes.payload << ", " << sizes.inFile << ", " << sizes.header << ", "
                  << sizes.dead << "}";
}

Sizes sizesOf(kelm::CVMDKSpaceInfo const& info) {
    return {info.getPayloadSize(), info.getPayloadSizeInFile(), info.getHeaderSize(),
            info.getDeadSpaceSize()};
}

TEST_F(DiskSpace, RecordsAddUp) {
    kelm::CVMDKSpaceInfo total;
    EXPECT_EQ((Sizes{0, 0, 0, 0}), sizesOf(total));
    kelm::CVMDKSpaceInfo part;
    part.setPayloadSize(1);
    part.setPayloadSizeInFile(20);
    part.setHeaderSize(300);
    part.setDeadSpaceSize(4000);
    total.addSpaceInfo(part);
    total.addSpaceInfo(part);
    total.addSpaceInfo(kelm::CVMDKSpaceInfo());
    EXPECT_EQ((Sizes{2, 40, 600, 8000}), sizesOf(total));
}

TEST_F(DiskSpace, EmptyDisksHaveHeadersAndTrails) {
    EXPECT_EQ((Sizes{0, 0, 65536, 0}), sizesOf(*create({}, "a.vmdk")->gatherSpaceInfo()));
    EXPECT_EQ((Sizes{0, 0, 65536, 1536}),
              sizesOf(*create({.compressed = true}, "b.vmdk")->gatherSpaceInfo()));
    EXPECT_EQ((Sizes{0, 0, 3 * 65536, 0}),
              sizesOf(*create({.fileSizeLimit = kSplitLimit}, "c.vmdk")->gatherSpaceInfo()));
}

TEST_F(DiskSpace, CountsEveryExtentAndMissingOnesAsNothing) {
    yx::P<kelm::CVMDKDisk> const disk = create({.fileSizeLimit = kSplitLimit, .onDemand = true});
    writeAt(*disk, 0, fromText("x"));
    writeAt(*disk, kSmallestDiskBytes - 1, fromText("y"));
    EXPECT_EQ((Sizes{2 * 65536, 2 * 65536, 2 * 65536, 0}), sizesOf(*disk->gatherSpaceInfo()));
    EXPECT_FALSE(files->fileExists(uriOf("disk-s00001.vmdk")));
}

TEST_F(DiskSpace, AbandonedSlotsAreDead) {
    yx::P<kelm::CVMDKDisk> const disk = create({.compressed = true});
    writeAt(*disk, 0, Bytes(kGrainBytes, 'a'));
    disk->flushChanges();
    Sizes const packed = sizesOf(*disk->gatherSpaceInfo());
    EXPECT_EQ(kGrainBytes, packed.payload);
    EXPECT_EQ(1536, packed.dead);
    writeAt(*disk, 0, pattern(kGrainBytes, 1));
    Sizes const moved = sizesOf(*disk->gatherSpaceInfo());
    EXPECT_EQ(kGrainBytes, moved.payload);
    EXPECT_EQ(packed.inFile + 1536, moved.dead);
}

TEST_F(DiskSpace, CursorStaysAlsoAtTheEndAndOnReadOnlyDisks) {
    create({.fileSizeLimit = kSplitLimit});
    yx::P<kelm::CVMDKDisk> const disk = open();
    for (__int64 const position : {0LL, 4000000LL, kSmallestDiskBytes}) {
        disk->seek(position);
        disk->gatherSpaceInfo();
        EXPECT_EQ(position, disk->getPosition());
    }
}

TEST_F(DiskSpace, CursorStaysWhenAnExtentFails) {
    create({.fileSizeLimit = kSplitLimit});
    files->deleteFile(uriOf("disk-s00002.vmdk"), false);
    yx::P<kelm::CVMDKDisk> const disk = open();
    disk->seek(12345);
    EXPECT_THROW(disk->gatherSpaceInfo(), yx::CIOError);
    EXPECT_EQ(12345, disk->getPosition());
}

} // namespace
} // namespace test_support
