#include "host/transfer/exact_size.h"

#include <thread>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/disk/disk_record.h"
#include "host/transfer/disk_content_reader.h"
#include "host/transfer/raw_target.h"
#include "host/transfer/transfer.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/loop_device.h"

namespace test_support {
namespace {

using kelm::host::getExactSizeBytes;
using kelm::host::ImageLength;
using kelm::host::keepsExactSize;
using kelm::host::RawSource;
using kelm::host::RawTarget;
using kelm::host::setExactSizeBytes;
using kelm::host::WorkOptions;

constexpr __int64 kExactBytes = kSmallestDiskBytes - 65536 - 100;

class ExactSize : public HostTest {
protected:
    Bytes exportImage(SafeDisk& disk) {
        RawTarget target(pathOf("out.raw"), true);
        exportRaw(disk, target, options);
        return readImage(pathOf("out.raw"));
    }

    /// Imports what a pipe delivers until its writer ends.
    void importFromPipe(Bytes const& content, SafeDisk& disk, ImageLength const& length) {
        std::string const path = pathOf("pipe");
        ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
        std::thread writer([&] {
            int const file = ::open(path.c_str(), O_WRONLY);
            EXPECT_EQ(static_cast<ssize_t>(content.size()),
                      ::write(file, content.data(), content.size()));
            ::close(file);
        });
        RawSource source(path);
        try {
            importRaw(source, disk, options, length);
        } catch (...) {
            writer.join();
            std::filesystem::remove(path);
            throw;
        }
        writer.join();
        std::filesystem::remove(path);
    }

    WorkOptions options;
};

TEST_F(ExactSize, IsKeptByEveryKindAndIsTheSizeOfTheExportedImage) {
    Bytes const content = mixedContent(static_cast<std::size_t>(kExactBytes));
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind, name);
            EXPECT_FALSE(keepsExactSize(*disk));
            EXPECT_EQ(kSmallestDiskBytes, getExactSizeBytes(*disk));
            writeTo(*disk, 0, content);
            setExactSizeBytes(*disk, kExactBytes);
        }
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, kind.password);
        EXPECT_TRUE(keepsExactSize(*disk));
        EXPECT_EQ(kExactBytes, getExactSizeBytes(*disk));
        EXPECT_EQ(kExactBytes, kelm::host::DiskContentReader(*disk).getLength());
        EXPECT_TRUE(sameBytes(content, exportImage(*disk)));
    }
}

TEST_F(ExactSize, MakesWhatLiesBehindZeros) {
    writeTo(*createSafe({"", true}, "parent.vmdk"), 0, pattern(kSmallestDiskBytes, 1));
    setExactSizeBytes(*createSafe({"", true}, "child.vmdk", "parent.vmdk"), kExactBytes);
    Bytes expected = slice(pattern(kSmallestDiskBytes, 1), 0, kExactBytes);
    EXPECT_TRUE(sameBytes(expected, exportImage(*openSafe("child.vmdk", kReadOnly))));
    expected.resize(static_cast<std::size_t>(kSmallestDiskBytes), 0);
    EXPECT_TRUE(sameBytes(expected, contentAfterReopening("child.vmdk")));
    EXPECT_EQ(2U, countStoredGrains("child.vmdk"));
}

TEST_F(ExactSize, TakesNoSpaceWhereAChildEqualsItsParent) {
    writeTo(*createSafe({"", true}, "parent.vmdk"), 0,
            pattern(static_cast<std::size_t>(kExactBytes), 1));
    setExactSizeBytes(*createSafe({"", true}, "child.vmdk", "parent.vmdk"), kExactBytes);
    EXPECT_EQ(0U, countStoredGrains("child.vmdk"));
    EXPECT_EQ(kExactBytes, getExactSizeBytes(*openSafe("child.vmdk", kReadOnly)));
}

TEST_F(ExactSize, DoesNotHideWhatOthersWriteBehindIt) {
    for (__int64 const position : {kExactBytes, kSmallestDiskBytes - 1}) {
        SCOPED_TRACE(position);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        std::unique_ptr<SafeDisk> const disk = createSafe({});
        setExactSizeBytes(*disk, kExactBytes);
        writeTo(*disk, position, Bytes{7});
        EXPECT_EQ(kSmallestDiskBytes, getExactSizeBytes(*disk));
        Bytes expected = zeros(kSmallestDiskBytes);
        expected[static_cast<std::size_t>(position)] = 7;
        EXPECT_TRUE(sameBytes(expected, exportImage(*disk)));
    }
}

TEST_F(ExactSize, OfAWholeDiskAndOfNothingAreSizesToo) {
    for (__int64 const size : {__int64{0}, kSmallestDiskBytes}) {
        SCOPED_TRACE(size);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        std::unique_ptr<SafeDisk> const disk = createSafe({});
        setExactSizeBytes(*disk, size);
        EXPECT_EQ(size, getExactSizeBytes(*disk));
        EXPECT_EQ(static_cast<std::size_t>(size), exportImage(*disk).size());
    }
}

TEST_F(ExactSize, OutsideTheDiskIsRefusedAndChangesNothing) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    for (__int64 const size : {__int64{-1}, kSmallestDiskBytes + 1}) {
        EXPECT_TRUE(throwsInvalidArg("setExactSizeBytes",
                                     "Invalid image size: " + std::to_string(size) + " bytes",
                                     [&] { setExactSizeBytes(*disk, size); }));
    }
    EXPECT_FALSE(keepsExactSize(*disk));
}

TEST_F(ExactSize, ThatCannotBeIsCorruptData) {
    {
        std::unique_ptr<SafeDisk> const disk = createSafe({});
        disk->getDisk().getDescriptor()->setValue("ddb.kelm.imageBytes", "00000000000008388609",
                                                  true, false);
        disk->getDisk().storeDescriptor();
    }
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::CorruptData,
                      "Invalid ddb.kelm.imageBytes in VMDK descriptor: 00000000000008388609",
                      {{"uri", "mem:///disks/disk.vmdk"}},
                      [&] { getExactSizeBytes(*openSafe("disk.vmdk", kReadOnly)); }));
}

TEST_F(ExactSize, PipeMustDeliverExactlySoManyBytes) {
    for (bool const compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        std::unique_ptr<SafeDisk> const disk = createSafe({"", compressed});
        Bytes const image = mixedContent(100000);
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The image ended early.",
                                  {{"imageSize", "100000"}, {"expectedSize", "100001"}},
                                  [&] { importFromPipe(image, *disk, {.bytes = 100001}); }));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The image ended early.",
                                  {{"imageSize", "0"}, {"expectedSize", "8388608"}},
                                  [&] { importFromPipe({}, *disk, {.bytes = 8388608}); }));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The image is longer than expected.",
                                  {{"imageSize", "100000"}, {"expectedSize", "99999"}},
                                  [&] { importFromPipe(image, *disk, {.bytes = 99999}); }));
        EXPECT_NO_THROW(importFromPipe(image, *disk, {.bytes = 100000}));
        EXPECT_NO_THROW(importFromPipe(image, *disk, {.bytes = 100001, .mayBeShorter = true}));
        EXPECT_NO_THROW(importFromPipe(image, *disk, {}));
    }
}

TEST_F(ExactSize, TooLargeForTheProcessLeavesTheTargetAsItWas) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    setExactSizeBytes(*disk, kExactBytes);
    Bytes const before = pattern(1000, 3);
    std::string const path = pathOf("out.raw");
    putImage("out.raw", before);
    struct rlimit former = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &former));
    auto const exportWithLimit = [&](__int64 limitBytes) {
        struct rlimit limit = former;
        limit.rlim_cur = static_cast<rlim_t>(limitBytes);
        ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
        try {
            RawTarget target(path, true);
            exportRaw(*disk, target, options);
        } catch (...) {
            ::setrlimit(RLIMIT_FSIZE, &former);
            throw;
        }
        ::setrlimit(RLIMIT_FSIZE, &former);
    };
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "The target is too small for the image.",
                              {{"path", path}, {"imageSize", "8322972"}, {"targetSize", "8322971"}},
                              [&] { exportWithLimit(kExactBytes - 1); }));
    EXPECT_TRUE(sameBytes(before, readImage(path)));
    exportWithLimit(kExactBytes);
    EXPECT_EQ(static_cast<std::size_t>(kExactBytes), readImage(path).size());
}

TEST_F(ExactSize, TooLargeForADeviceLeavesItAsItWas) {
    constexpr __int64 kDeviceBytes = kSmallestDiskBytes - 65536 + 512;
    Bytes const before = pattern(static_cast<std::size_t>(kDeviceBytes), 3);
    std::string const path = putImage("backing", before);
    LoopDevice const device(path);
    if (!device.isThere())
        GTEST_SKIP() << "The system gives no loop device.";
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    Bytes const content = pattern(static_cast<std::size_t>(kDeviceBytes), 4);
    writeTo(*disk, 0, content);
    setExactSizeBytes(*disk, kDeviceBytes + 1);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NoSpace, "The target is too small for the image.",
        {{"path", device.getPath()}, {"imageSize", "8323585"}, {"targetSize", "8323584"}}, [&] {
            RawTarget target(device.getPath(), true);
            exportRaw(*disk, target, options);
        }));
    EXPECT_TRUE(sameBytes(before, readImage(path)));
    setExactSizeBytes(*disk, kDeviceBytes);
    RawTarget sameTarget(device.getPath(), true);
    exportRaw(*disk, sameTarget, options);
    EXPECT_TRUE(sameBytes(content, readImage(path)));
}

} // namespace
} // namespace test_support
