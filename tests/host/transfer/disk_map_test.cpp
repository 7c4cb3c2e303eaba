#include "host/transfer/disk_map.h"

#include "tests/host/host_fixture.h"

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::forEachGrainRun;
using kelm::host::GrainPlace;
using kelm::host::GrainRun;
using kelm::host::WorkOptions;

namespace test_support {
namespace {

class DiskMapTest : public HostTest {
protected:
    /// The runs of a disk in lines: start and end in units, and the place.
    static std::string mapOf(std::unique_ptr<SafeDisk> const& disk,
                             __int64 unitBytes = kGrainBytes) {
        std::string text;
        forEachGrainRun(*disk, {}, [&](GrainRun const& run) {
            text += std::to_string(run.startBytes / unitBytes) + "-" +
                    std::to_string(run.endBytes() / unitBytes) +
                    (run.place == GrainPlace::Here     ? " here\n"
                     : run.place == GrainPlace::Parent ? " parent\n"
                                                       : " absent\n");
        });
        return text;
    }
};

TEST_F(DiskMapTest, TellsWhoHoldsWhatForEveryKind) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const parent = std::string(kind.name) + ".vmdk";
        std::string const child = std::string(kind.name) + "-child.vmdk";
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, parent);
            writeTo(*disk, 2 * kGrainBytes, pattern(3 * kGrainBytes, 1));
            writeTo(*disk, 127 * kGrainBytes, pattern(kGrainBytes, 2));
        }
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, child, parent);
            writeTo(*disk, 3 * kGrainBytes, pattern(kGrainBytes, 3));
            writeTo(*disk, 100 * kGrainBytes, pattern(kGrainBytes, 4));
        }
        EXPECT_EQ("0-2 absent\n2-5 here\n5-127 absent\n127-128 here\n",
                  mapOf(openSafe(parent, kReadOnly, kind.password)));
        EXPECT_EQ("0-2 absent\n2-3 parent\n3-4 here\n4-5 parent\n5-100 absent\n100-101 here\n"
                  "101-127 absent\n127-128 parent\n",
                  mapOf(openSafe(child, kReadOnly, kind.password)));
    }
}

TEST_F(DiskMapTest, LastRunEndsWithTheDisk) {
    { createSafe({}, "parent.vmdk"); }
    putShortChild();
    EXPECT_EQ("0-300 absent\n", mapOf(openSafe("child.vmdk", kReadOnly), 512));
}

TEST_F(DiskMapTest, ExtentsThatBeginWithinAGrainAreSeen) {
    putExtent("a.vmdk", 1);
    putExtent("b.vmdk", 1);
    putText("disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID=ffffffff\n"
                         "createType=\"twoGbMaxExtentSparse\"\nRW 100 SPARSE \"a.vmdk\"\n"
                         "RW 128 SPARSE \"b.vmdk\"\n");
    {
        // The second extent alone has data; that it is a disk of its own is for this test.
        putText("b-disk.vmdk", "version=1\nencoding=\"UTF-8\"\nCID=12345678\nparentCID=ffffffff\n"
                               "createType=\"twoGbMaxExtentSparse\"\nRW 128 SPARSE \"b.vmdk\"\n");
        writeTo(*openSafe("b-disk.vmdk"), 0, pattern(10, 1));
    }
    EXPECT_EQ("0-100 absent\n100-228 here\n", mapOf(openSafe("disk.vmdk", kReadOnly), 512));
}

/// A grain at a time, the largest disks would take minutes.
TEST_F(DiskMapTest, ExtentsWithoutAFileAreTakenAsAWhole) {
    constexpr __int64 kFileBytes = __int64{16} << 30;
    constexpr __int64 kDiskBytes = __int64{62} << 40;
    kelm::host::NewDisk request;
    request.sizeBytes = kDiskBytes;
    request.fileSizeLimitBytes = kFileBytes;
    request.createExtentFilesOnDemand = true;
    request.trust.allowOversize = true;
    yx::P<FileGuard> const guard = makeGuard();
    std::unique_ptr<SafeDisk> const disk =
        SafeDisk::create(guard.get(), uriOf("disk.vmdk"), request);
    __int64 const position = disk->listExtents()[1000].startBytes;
    EXPECT_GT(disk->findMissingEnd(position), position);
    writeTo(*disk, position, pattern(kGrainBytes, 1));
    EXPECT_EQ(disk->findMissingEnd(position), position);
    __int64 const index = position / kGrainBytes;
    EXPECT_EQ("0-" + std::to_string(index) + " absent\n" + std::to_string(index) + "-" +
                  std::to_string(index + 1) + " here\n" + std::to_string(index + 1) + "-" +
                  std::to_string(kDiskBytes / kGrainBytes) + " absent\n",
              mapOf(disk));
}

TEST_F(DiskMapTest, StopsWhenItIsTold) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    CancelFlag flag;
    flag.set();
    WorkOptions options;
    options.cancel = &flag;
    EXPECT_THROW(forEachGrainRun(*disk, options, [](GrainRun const&) {}), CancelledError);
}

} // namespace
} // namespace test_support
