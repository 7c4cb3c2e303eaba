#include "host/transfer/disk_space.h"

#include "tests/host/host_fixture.h"

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::gatherSpace;
using kelm::host::WorkOptions;

namespace test_support {
namespace {

using DiskSpaceTest = HostTest;

/// Payload, payload in the file, header, dead space.
std::vector<__int64> sizesOf(kelm::CVMDKSpaceInfo const& info) {
    return {info.getPayloadSize(), info.getPayloadSizeInFile(), info.getHeaderSize(),
            info.getDeadSpaceSize()};
}

TEST_F(DiskSpaceTest, IsWhatTheDiskTellsForEveryKind) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, name);
            writeTo(*disk, 100, textPattern(300000, 1));
            disk->flush();
            // Grains that outgrow their slots leave dead space.
            writeTo(*disk, 0, pattern(200000, 2));
        }
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, kind.password);
        disk->getDisk().seek(12345);
        kelm::CVMDKSpaceInfo const space = gatherSpace(*disk, {});
        EXPECT_EQ(sizesOf(*disk->getDisk().gatherSpaceInfo()), sizesOf(space));
        EXPECT_EQ(5 * kGrainBytes, space.getPayloadSize());
        EXPECT_EQ(12345, disk->getDisk().getPosition());
    }
}

TEST_F(DiskSpaceTest, StopsWhenItIsTold) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    CancelFlag flag;
    flag.set();
    WorkOptions options;
    options.cancel = &flag;
    EXPECT_THROW(gatherSpace(*disk, options), CancelledError);
}

TEST_F(DiskSpaceTest, RefusesSizesThatCannotBe) {
    { createSafe({.fileSizeLimit = kSplitLimit}); }
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    Bytes file = toBytes(files->getFile(uriOf("disk-s00001.vmdk")));
    file[18] = 0xFF;
    files->putFile(uriOf("disk-s00001.vmdk"), toBuffer(file));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::CorruptData, "Invalid capacity in VMDK sparse header: 71776119061223168",
        {{"uri", "mem:///disks/disk-s00001.vmdk"}}, [&] { gatherSpace(*disk, {}); }));
}

} // namespace
} // namespace test_support
