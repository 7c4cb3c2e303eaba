#include <algorithm>
#include <csignal>
#include <random>

#include <sys/resource.h>
#include <sys/uio.h>

#include "host/transfer/export_run.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/foreign_chain.h"
#include "tests/support/loop_device.h"
#include "tests/support/small_device.h"

namespace test_support {
namespace {

using kelm::host::ExportRun;
using kelm::host::RawTarget;
using kelm::host::WorkOptions;

/// Exports of compressed and encrypted disks, whose grains are written in runs by several threads.
class CodedExport : public HostTest {
protected:
    static void exportTo(std::string const& path, SafeDisk& disk, int threads = 3) {
        WorkOptions options;
        options.threads = threads;
        RawTarget target(path, true);
        exportRaw(disk, target, options);
    }

    /// The disk's bytes, with `grainBytes` of data wherever the draw says so; some of it zeros.
    static Bytes drawGrains(unsigned int seed, std::size_t grainBytes) {
        std::mt19937 random(seed);
        Bytes content = zeros(kSmallestDiskBytes);
        for (std::size_t at = 0; at < content.size(); at += grainBytes) {
            std::size_t const bytes = std::min(grainBytes, content.size() - at);
            auto const grainSeed = static_cast<unsigned int>(random());
            Bytes const grain =
                grainSeed % 2 == 0 ? textPattern(bytes, grainSeed) : pattern(bytes, grainSeed);
            if (random() % 4 != 0)
                std::copy(grain.begin(), grain.end(),
                          content.begin() + static_cast<std::ptrdiff_t>(at));
        }
        return content;
    }
};

TEST_F(CodedExport, RunsOfAllLengthsAreWrittenToTheirPlaces) {
    for (unsigned int seed = 1; seed <= 6; ++seed) {
        SCOPED_TRACE(seed);
        DiskKind const kind = {.compressed = seed % 2 == 0, .password = seed % 3 == 0 ? "" : "x"};
        std::string const name = "disk" + std::to_string(seed) + ".vmdk";
        Bytes const content = drawGrains(seed, kGrainBytes);
        std::unique_ptr<SafeDisk> disk = createSafe(kind, name);
        writeTo(*disk, 0, content);
        // Held by the disk, and zeros all the same.
        writeTo(*disk, 5 * kGrainBytes, zeros(kGrainBytes));
        disk.reset();
        Bytes const expected = contentAfterReopening(name, kind.password);
        for (int const threads : {1, 2, 4}) {
            exportTo(pathOf("out.raw"), *openSafe(name, kReadOnly, kind.password), threads);
            EXPECT_TRUE(sameBytes(expected, readImage(pathOf("out.raw")))) << threads;
        }
    }
}

TEST_F(CodedExport, SmallAndLargeGrainsAreWrittenToTheirPlaces) {
    static_assert(ExportRun::kUnitBytes == 256 << 10 && ExportRun::kMaxGrains == 64);
    for (__int64 const grainSectors : {1, 8, 24, 1024, 2048}) {
        SCOPED_TRACE(grainSectors);
        auto const grainBytes = static_cast<std::size_t>(grainSectors * 512);
        ForeignDisk foreign;
        foreign.extents = {{.sizeSectors = kSmallestDiskBytes / 512,
                            .grainSizeSectors = grainSectors,
                            .compressed = true}};
        makeForeignDisk(*files, yx::CURI("mem:///disks"), foreign);
        Bytes const content = drawGrains(7, grainBytes);
        writeTo(*openSafe(), 0, content);
        exportTo(pathOf("out.raw"), *openSafe("disk.vmdk", kReadOnly));
        EXPECT_TRUE(sameBytes(content, readImage(pathOf("out.raw"))));
    }
}

TEST_F(CodedExport, GoesToADevice) {
    Bytes const content = drawGrains(8, kGrainBytes);
    writeTo(*createSafe({.compressed = true}), 0, content);
    putImage("backing", pattern(kSmallestDiskBytes, 9));
    {
        LoopDevice const device(pathOf("backing"));
        if (!device.isThere())
            GTEST_SKIP() << "The system gives no loop device.";
        exportTo(device.getPath(), *openSafe("disk.vmdk", kReadOnly));
    }
    EXPECT_TRUE(sameBytes(content, readImage(pathOf("backing"))));
}

TEST_F(CodedExport, FullFileSystemIsReportedAndTheImageRemoved) {
    writeTo(*createSafe({.compressed = true}), 0, drawGrains(10, kGrainBytes));
    std::filesystem::create_directory(pathOf("small"));
    SmallDevice const device(pathOf("small"), 1);
    if (!device.isMounted())
        GTEST_SKIP() << "A small file system cannot be mounted here.";
    std::string const path = pathOf("small/out.raw");
    for (int const threads : {1, 2, 4}) {
        SCOPED_TRACE(threads);
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::NoSpace, "Cannot write the image: No space left on device",
            {{"path", path}}, [&] { exportTo(path, *openSafe("disk.vmdk", kReadOnly), threads); }));
        EXPECT_TRUE(std::filesystem::is_empty(pathOf("small")));
    }
}

TEST_F(CodedExport, PartsThatAreTakenInPiecesAreWrittenWhole) {
    constexpr rlim_t kLimitBytes = 5000;
    Bytes data = pattern(12000, 11);
    RawTarget target(pathOf("out.raw"), false);
    ASSERT_TRUE(target.beginWritingAnywhere());
    std::vector<iovec> parts = {{data.data(), 3000}, {data.data() + 3000, 0}, {&data[3000], 9000}};
    rlimit before = {};
    ASSERT_EQ(0, ::getrlimit(RLIMIT_FSIZE, &before));
    auto* const handlerBefore = std::signal(SIGXFSZ, SIG_IGN);
    rlimit const limit = {kLimitBytes, before.rlim_max};
    ASSERT_EQ(0, ::setrlimit(RLIMIT_FSIZE, &limit));
    // The system takes what lies before the limit, and refuses what is left.
    EXPECT_THROW(target.writeAt(0, parts), yx::CIOError);
    ::setrlimit(RLIMIT_FSIZE, &before);
    std::signal(SIGXFSZ, handlerBefore);
    EXPECT_TRUE(sameBytes(slice(data, 0, kLimitBytes), readImage(pathOf("out.raw"))));
    // Of the parts just that is left, so that it can be gone on with.
    EXPECT_EQ(parts[2].iov_base, &data[kLimitBytes]);
    EXPECT_EQ(parts[2].iov_len, data.size() - kLimitBytes);
    target.writeAt(kLimitBytes, std::span(&parts[2], 1));
    EXPECT_TRUE(sameBytes(data, readImage(pathOf("out.raw"))));
}

} // namespace
} // namespace test_support
