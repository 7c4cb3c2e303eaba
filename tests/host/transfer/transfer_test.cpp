#include "host/transfer/transfer.h"

#include <algorithm>
#include <csignal>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "host/transfer/disk_map.h"
#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"

using testing::ElementsAre;

namespace test_support {
namespace {

using kelm::host::CancelFlag;
using kelm::host::CancelledError;
using kelm::host::RawSource;
using kelm::host::RawTarget;
using kelm::host::WorkOptions;

class Transfer : public HostTest {
protected:
    void importImage(Bytes const& content, SafeDisk& disk) {
        RawSource source(putImage("in.raw", content));
        importRaw(source, disk, options);
    }

    Bytes exportImage(SafeDisk& disk) {
        RawTarget target(pathOf("out.raw"), true);
        exportRaw(disk, target, options);
        return readImage(pathOf("out.raw"));
    }

    static WorkOptions withThreads(int threads) {
        WorkOptions options;
        options.threads = threads;
        return options;
    }

    WorkOptions options = withThreads(3);
};

constexpr std::size_t kMixedGrains = 8;

TEST_F(Transfer, EveryKindGivesBackTheImageThatItGot) {
    Bytes const content = mixedContent();
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        importImage(content, *createSafe(kind, name));
        EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes),
                              contentAfterReopening(name, kind.password)));
        EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes),
                              exportImage(*openSafe(name, kReadOnly, kind.password))));
        EXPECT_EQ(kMixedGrains, countStoredGrains(name, kind.password));
    }
}

TEST_F(Transfer, ImportThatFailsHalfWayKeepsWhatWasThereAtItsLastFlush) {
    constexpr int kGrains = 48;
    FileOperationKinds const writes{FileOperation::Kind::Write};
    std::string const image =
        putImage("in.raw", pattern(kGrains * static_cast<std::size_t>(kGrainBytes), 7));
    auto const importFailingAt = [&](std::string const& name, bool compressed, int nthWrite) {
        createSafe({"", compressed}, name);
        auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
        SafeDisk disk(faulty.get(), uriOf(name), kReadWrite, "");
        faulty->add({.kinds = writes, .nth = nthWrite, .sticky = true});
        int const before = faulty->count(writes);
        try {
            RawSource source(image);
            importRaw(source, disk, options);
        } catch (yx::CIOError const& error) {
            EXPECT_EQ("Injected failure.", error.getMessage().toStdString());
        }
        return faulty->count(writes) - before;
    };
    auto const countKept = [&](std::string const& name) {
        // Opened for writing, as who goes on does, which puts half-written tables right.
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadWrite);
        int count = 0;
        for (int grain = 0; grain < kGrains; ++grain)
            count += disk->isGrainWrittenHere(grain);
        return count;
    };
    for (bool const compressed : {false, true}) {
        SCOPED_TRACE(compressed);
        std::string const kind = compressed ? "packed" : "plain";
        options.flushIntervalBytes = 4 * kGrainBytes;
        int const writeCount = importFailingAt(kind + "1.vmdk", compressed, 1 << 30);
        EXPECT_EQ(kGrains, countKept(kind + "1.vmdk"));
        importFailingAt(kind + "2.vmdk", compressed, writeCount / 2);
        EXPECT_GE(countKept(kind + "2.vmdk"), kGrains / 2 - 8);
        EXPECT_LE(countKept(kind + "2.vmdk"), kGrains / 2 + 8);
        options.flushIntervalBytes = WorkOptions().flushIntervalBytes;
        importFailingAt(kind + "3.vmdk", compressed, writeCount / 4);
        EXPECT_EQ(0, countKept(kind + "3.vmdk"));
    }
}

/// A grain at a time, this would take minutes.
TEST_F(Transfer, NearlyEmptyImageOfManyTerabytesIsImportedCheckedAndExported) {
    constexpr __int64 kImageBytes = (__int64{4} << 40) - 1000;
    constexpr __int64 kPositions[] = {(__int64{1} << 30) + 65536 + 5, __int64{3} << 40,
                                      kImageBytes - 10};
    std::string const image = pathOf("in.raw");
    std::ofstream(image).close();
    std::filesystem::resize_file(image, static_cast<std::uintmax_t>(kImageBytes));
    for (__int64 const position : kPositions)
        std::fstream(image, std::ios::binary | std::ios::in | std::ios::out)
            .seekp(position)
            .write("x", 1);
    for (bool const isEncrypted : {false, true}) {
        SCOPED_TRACE(isEncrypted);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        kelm::host::NewDisk request;
        request.sizeBytes = kImageBytes;
        request.fileSizeLimitBytes = __int64{16} << 30;
        request.createExtentFilesOnDemand = true;
        request.trust.allowOversize = true;
        request.password = isEncrypted ? "secret" : "";
        yx::P<FileGuard> const guard = makeGuard();
        guard->keep();
        std::unique_ptr<SafeDisk> const disk =
            SafeDisk::create(guard.get(), uriOf("disk.vmdk"), request);
        RawSource source(image);
        std::vector<__int64> done;
        options.progress = [&](__int64 doneBytes, __int64) { done.push_back(doneBytes); };
        importRaw(source, *disk, options);
        ASSERT_FALSE(done.empty());
        EXPECT_EQ(kImageBytes, done.back());
        EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
        options.progress = nullptr;

        std::vector<__int64> stored;
        kelm::host::forEachGrainRun(*disk, {}, [&](kelm::host::GrainRun const& run) {
            if (run.place == kelm::host::GrainPlace::Here) {
                EXPECT_EQ(kGrainBytes, run.lengthBytes);
                stored.push_back(run.startBytes);
            }
        });
        std::vector<__int64> expected;
        for (__int64 const position : kPositions)
            expected.push_back(position / kGrainBytes * kGrainBytes);
        EXPECT_EQ(expected, stored);

        std::string const copy = pathOf("out.raw");
        RawTarget target(copy, true);
        exportRaw(*disk, target, options);
        target.finish();
        EXPECT_EQ(static_cast<std::uintmax_t>(disk->getSizeBytes()),
                  std::filesystem::file_size(copy));
        std::ifstream exported(copy, std::ios::binary);
        for (__int64 const position : kPositions) {
            exported.seekg(position - 1);
            EXPECT_EQ(0, exported.get());
            EXPECT_EQ('x', exported.get());
        }
    }
}

TEST_F(Transfer, EveryKindBecomesEveryOther) {
    Bytes const content = mixedContent();
    for (DiskKind const& from : allDiskKinds())
        importImage(content, *createSafe(from, std::string("from-") + from.name + ".vmdk"));
    for (DiskKind const& from : allDiskKinds()) {
        std::unique_ptr<SafeDisk> const source =
            openSafe(std::string("from-") + from.name + ".vmdk", kReadOnly, from.password);
        for (DiskKind const& to : allDiskKinds()) {
            SCOPED_TRACE(std::string(from.name) + " to " + to.name);
            std::string const name = std::string("to-") + to.name + ".vmdk";
            {
                yx::P<FileGuard> const guard = makeGuard(true);
                guard->keep();
                std::unique_ptr<SafeDisk> const target =
                    SafeDisk::create(guard.get(), uriOf(name), requestFor(to));
                convertDisk(*source, *target, options);
            }
            EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes),
                                  contentAfterReopening(name, to.password)));
            EXPECT_EQ(kMixedGrains, countStoredGrains(name, to.password));
            for (yx::CURI const& uri : openSafe(name, kReadOnly, to.password)->listFiles())
                files->deleteFile(uri, true);
        }
    }
}

TEST_F(Transfer, ChainBecomesOneDisk) {
    Bytes const base = mixedContent(1200000, 1);
    Bytes content = padded(base, kSmallestDiskBytes);
    for (bool const compressed : {false, true}) {
        for (bool const childCompressed : {false, true}) {
            SCOPED_TRACE(testing::Message() << compressed << childCompressed);
            files = yx::makeObject<yx::CMemoryFileSystem>();
            content = padded(base, kSmallestDiskBytes);
            importImage(base, *createSafe({"", compressed}, "parent.vmdk"));
            {
                std::unique_ptr<SafeDisk> const child =
                    createSafe({"", childCompressed}, "child.vmdk", "parent.vmdk");
                Bytes const change = textPattern(100000, 9);
                writeTo(*child, 5 * 65536 + 3, change);
                child->writeZeros(0, 65536);
                std::copy(change.begin(), change.end(), content.begin() + 5 * 65536 + 3);
                std::fill_n(content.begin(), 65536, static_cast<unsigned char>(0));
            }
            std::unique_ptr<SafeDisk> const chain = openSafe("child.vmdk", kReadOnly);
            EXPECT_TRUE(sameBytes(content, exportImage(*chain)));
            convertDisk(*chain, *createSafe({"", true}, "flat.vmdk"), options);
            EXPECT_TRUE(sameBytes(content, contentAfterReopening("flat.vmdk")));
            countStoredGrains("flat.vmdk");
        }
    }
}

TEST_F(Transfer, ConversionPassesRecordsOnAsTheyAre) {
    Bytes const content = textPattern(3 * 65536, 1);
    NewDisk request;
    request.sizeBytes = kSmallestDiskBytes;
    request.compressed = true;
    yx::P<FileGuard> const guard = makeGuard();
    guard->keep();
    auto const create = [&](char const* name, int level) {
        request.compressionLevel = level;
        return SafeDisk::create(guard.get(), uriOf(name), request);
    };
    writeTo(*create("a.vmdk", 9), 0, content);
    convertDisk(*openSafe("a.vmdk", kReadOnly), *create("b.vmdk", 0), options);
    Buffer first;
    Buffer second;
    ASSERT_TRUE(openSafe("a.vmdk", kReadOnly)->tryReadPreparedGrain(1, first));
    ASSERT_TRUE(openSafe("b.vmdk", kReadOnly)->tryReadPreparedGrain(1, second));
    EXPECT_TRUE(sameBytes(first, second));
}

TEST_F(Transfer, GrainsOfOtherSizesAreConvertedByTheirBytes) {
    for (bool const compressed : {false, true}) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        putExtent("small-s1.vmdk", 100, 16, compressed);
        putText("small.vmdk", std::string("# Disk DescriptorFile\nversion=1\nencoding=\"UTF-8\"\n"
                                          "CID=1\nparentCID=ffffffff\ncreateType=\"") +
                                  (compressed ? "streamOptimized" : "twoGbMaxExtentSparse") +
                                  "\"\nRW 1590 SPARSE \"small-s1.vmdk\"\n");
        Bytes const content = padded(mixedContent(700000), 1590 * 512);
        importImage(content, *openSafe("small.vmdk"));
        EXPECT_TRUE(sameBytes(content, exportImage(*openSafe("small.vmdk", kReadOnly))));
        convertDisk(*openSafe("small.vmdk", kReadOnly), *createSafe({}, "large.vmdk"), options);
        EXPECT_TRUE(
            sameBytes(padded(content, kSmallestDiskBytes), contentAfterReopening("large.vmdk")));
        countStoredGrains("large.vmdk");
    }
}

TEST_F(Transfer, DiskThatEndsWithinAGrainIsConverted) {
    writeTo(*createSafe({}, "parent.vmdk"), 0, pattern(3 * 65536, 1));
    putShortChild();
    Bytes const expected = slice(pattern(3 * 65536, 1), 0, 300 * 512);
    EXPECT_TRUE(sameBytes(expected, exportImage(*openSafe("child.vmdk", kReadOnly))));
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        convertDisk(*openSafe("child.vmdk", kReadOnly), *createSafe(kind, name), options);
        EXPECT_TRUE(sameBytes(padded(expected, kSmallestDiskBytes),
                              contentAfterReopening(name, kind.password)));
        std::string const importedName = "imported-" + name;
        importImage(expected, *createSafe(kind, importedName));
        Buffer imported;
        Buffer converted;
        std::unique_ptr<SafeDisk> const disk = openSafe(name, kReadOnly, kind.password);
        ASSERT_EQ(
            openSafe(importedName, kReadOnly, kind.password)->tryReadPreparedGrain(2, imported),
            disk->tryReadPreparedGrain(2, converted));
        EXPECT_TRUE(sameBytes(imported, converted));
    }
}

TEST_F(Transfer, ImportIntoAChildStoresWhatDiffers) {
    Bytes content = padded(mixedContent(), kSmallestDiskBytes);
    writeTo(*createSafe({"", true}, "parent.vmdk"), 0, content);
    content[5] ^= 1;
    std::fill_n(content.begin() + 4 * 65536, 65536, static_cast<unsigned char>(0));
    content[100 * 65536] = 1;
    importImage(content, *createSafe({}, "child.vmdk", "parent.vmdk"));
    EXPECT_EQ(3U, countStoredGrains("child.vmdk"));
    EXPECT_TRUE(sameBytes(content, contentAfterReopening("child.vmdk")));
}

TEST_F(Transfer, ImportLeavesWhatLiesBehindTheImage) {
    for (bool const compressed : {false, true}) {
        std::string const name = compressed ? "c.vmdk" : "p.vmdk";
        Bytes content = pattern(3 * 65536, 1);
        writeTo(*createSafe({"", compressed}, name), 0, content);
        Bytes const image = textPattern(65536 + 100, 2);
        importImage(image, *openSafe(name));
        std::copy(image.begin(), image.end(), content.begin());
        EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes), contentAfterReopening(name)));
    }
}

TEST_F(Transfer, ImageThatIsTooLargeIsRefusedBeforeAnythingIsWritten) {
    std::unique_ptr<SafeDisk> const disk = createSafe({});
    Bytes content = zeros(kSmallestDiskBytes + 1);
    content[0] = 1;
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The image is larger than the disk.",
                              {{"imageSize", "8388609"}, {"diskSize", "8388608"}},
                              [&] { importImage(content, *disk); }));
    EXPECT_FALSE(disk->isGrainWritten(0));
}

TEST_F(Transfer, PipeThatDeliversTooMuchIsRefused) {
    for (bool const compressed : {false, true}) {
        std::string const path = pathOf("pipe");
        ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
        std::thread writer([&path] {
            int const file = ::open(path.c_str(), O_WRONLY);
            Bytes const chunk = zeros(kSmallestDiskBytes);
            for (int i = 0; i < 2; ++i) {
                if (::write(file, chunk.data(), i == 0 ? chunk.size() : 1) < 0)
                    break;
            }
            ::close(file);
        });
        std::unique_ptr<SafeDisk> const disk = createSafe({"", compressed}, compressed ? "c" : "p");
        {
            RawSource source(path);
            EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                      "The image is larger than the disk.",
                                      {{"imageSize", "8388609"}, {"diskSize", "8388608"}},
                                      [&] { importRaw(source, *disk, options); }));
        }
        writer.join();
        std::filesystem::remove(path);
    }
}

TEST_F(Transfer, PipeIsImported) {
    Bytes const content = mixedContent();
    for (bool const compressed : {false, true}) {
        std::string const path = pathOf("pipe");
        ASSERT_EQ(0, ::mkfifo(path.c_str(), 0600));
        std::thread writer([&] {
            int const file = ::open(path.c_str(), O_WRONLY);
            EXPECT_EQ(static_cast<ssize_t>(content.size()),
                      ::write(file, content.data(), content.size()));
            ::close(file);
        });
        std::string const name = compressed ? "c.vmdk" : "p.vmdk";
        std::unique_ptr<SafeDisk> disk = createSafe({"", compressed}, name);
        RawSource source(path);
        importRaw(source, *disk, options);
        writer.join();
        disk.reset();
        EXPECT_TRUE(sameBytes(padded(content, kSmallestDiskBytes), contentAfterReopening(name)));
        EXPECT_EQ(kMixedGrains, countStoredGrains(name));
        std::filesystem::remove(path);
    }
}

TEST_F(Transfer, TargetThatIsTooSmallIsRefused) {
    std::unique_ptr<SafeDisk> const large = createSafe({}, "large.vmdk", "", 10 << 20);
    std::unique_ptr<SafeDisk> const small = createSafe({}, "small.vmdk");
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed, "The target disk is too small.",
                              {{"sourceSize", "10485760"}, {"targetSize", "8388608"}},
                              [&] { convertDisk(*large, *small, options); }));
    EXPECT_NO_THROW(convertDisk(*small, *large, options));
}

TEST_F(Transfer, ProgressRisesAndEndsWithTheWhole) {
    std::vector<__int64> done;
    __int64 lastTotal = 0;
    options.progress = [&](__int64 doneBytes, __int64 totalBytes) {
        done.push_back(doneBytes);
        lastTotal = totalBytes;
    };
    Bytes const content = mixedContent();
    importImage(content, *createSafe({"", true}));
    ASSERT_FALSE(done.empty());
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(1200000, done.back());
    EXPECT_EQ(1200000, lastTotal);
    exportImage(*openSafe("disk.vmdk", kReadOnly));
    EXPECT_EQ(kSmallestDiskBytes, done.back());
}

TEST_F(Transfer, CancellingStopsEachOfThemAndLeavesNothing) {
    importImage(mixedContent(), *createSafe({"", true}, "full.vmdk"));
    createSafe({}, "child.vmdk", "full.vmdk");
    CancelFlag cancel;
    cancel.set();
    options.cancel = &cancel;
    for (bool const compressed : {false, true}) {
        yx::P<FileGuard> guard = makeGuard();
        NewDisk request;
        request.sizeBytes = kSmallestDiskBytes;
        request.compressed = compressed;
        std::unique_ptr<SafeDisk> disk = SafeDisk::create(guard.get(), uriOf("new.vmdk"), request);
        EXPECT_THROW(importImage(mixedContent(), *disk), CancelledError);
        EXPECT_THROW(convertDisk(*openSafe("full.vmdk", kReadOnly), *disk, options),
                     CancelledError);
    }
    EXPECT_THROW(exportImage(*openSafe("full.vmdk", kReadOnly)), CancelledError);
    EXPECT_FALSE(std::filesystem::exists(pathOf("out.raw")));
    EXPECT_THROW(makeIndependentOfParent(*openSafe("child.vmdk"), options), CancelledError);
    EXPECT_THAT(fileNames(), ElementsAre("child.vmdk", "full.vmdk"));
}

TEST_F(Transfer, DamagedGrainStopsTheExportAndLeavesNoImage) {
    importImage(mixedContent(), *createSafe({"", true}));
    ExtentReport const report = checkExtent(files->getFile(uriOf("disk.vmdk")));
    Bytes bytes = toBytes(files->getFile(uriOf("disk.vmdk")));
    std::size_t const record = report.grains.at(1).posSectors * 512;
    std::fill_n(bytes.begin() + static_cast<long>(record) + 12, 200,
                static_cast<unsigned char>(0xFF));
    files->putFile(uriOf("disk.vmdk"), toBuffer(bytes));
    try {
        exportImage(*openSafe("disk.vmdk", kReadOnly));
        FAIL() << "threw nothing";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::CorruptData, error.getIOCode());
    }
    EXPECT_FALSE(std::filesystem::exists(pathOf("out.raw")));
}

/// Lets no file of this process become longer for as long as it lives.
class FileSizeLimit {
public:
    explicit FileSizeLimit(rlim_t sizeBytes) {
        ::getrlimit(RLIMIT_FSIZE, &m_before);
        rlimit const limit{sizeBytes, m_before.rlim_max};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        m_handlerBefore = std::signal(SIGXFSZ, SIG_IGN);
    }
    FileSizeLimit(FileSizeLimit const&) = delete;
    FileSizeLimit& operator=(FileSizeLimit const&) = delete;
    ~FileSizeLimit() {
        std::signal(SIGXFSZ, m_handlerBefore);
        ::setrlimit(RLIMIT_FSIZE, &m_before);
    }

private:
    rlimit m_before{};
    void (*m_handlerBefore)(int) = nullptr;
};

TEST_F(Transfer, ImageThatCannotBeWrittenIsRemoved) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::string const name = std::string(kind.name) + ".vmdk";
        importImage(mixedContent(), *createSafe(kind, name));
        FileSizeLimit const limit(kGrainBytes);
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::NoSpace, "The target is too small for the image.",
            {{"path", pathOf("out.raw")}, {"imageSize", "8388608"}, {"targetSize", "65536"}},
            [&] { exportImage(*openSafe(name, kReadOnly, kind.password)); }));
        EXPECT_FALSE(std::filesystem::exists(pathOf("out.raw")));
    }
}

TEST_F(Transfer, FailureOfAnyWriteOrReadReachesTheCaller) {
    importImage(mixedContent(), *createSafe({"", true}, "full.vmdk"));
    for (auto const kind :
         {FileOperation::Kind::Write, FileOperation::Kind::Read, FileOperation::Kind::Flush}) {
        for (int nth = 1; nth < 60; nth += 7) {
            SCOPED_TRACE(testing::Message() << static_cast<int>(kind) << " " << nth);
            yx::P<FaultyFileSystem> const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            bool failed = false;
            {
                yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(faulty.get(), false);
                NewDisk request;
                request.sizeBytes = kSmallestDiskBytes;
                request.compressed = true;
                std::unique_ptr<SafeDisk> from =
                    std::make_unique<SafeDisk>(faulty.get(), uriOf("full.vmdk"), kReadOnly, "");
                std::unique_ptr<SafeDisk> to =
                    SafeDisk::create(guard.get(), uriOf("new.vmdk"), request);
                // A single read that fails may be done again.
                faulty->add(
                    {.kinds = {kind}, .nth = nth, .sticky = kind == FileOperation::Kind::Read});
                try {
                    convertDisk(*from, *to, options);
                } catch (yx::CIOError const& error) {
                    failed = true;
                    EXPECT_EQ("Injected failure.", error.getMessage().toStdString());
                }
                EXPECT_EQ(faulty->hits() > 0, failed);
                faulty->clear();
            }
            EXPECT_THAT(fileNames(), ElementsAre("full.vmdk"));
        }
    }
}

TEST_F(Transfer, IndependentChildHoldsAllThatTheChainHas) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes content = padded(mixedContent(), kSmallestDiskBytes);
        writeTo(*createSafe({"", true}, "parent.vmdk"), 0, content);
        {
            std::unique_ptr<SafeDisk> const child = createSafe(kind, "child.vmdk", "parent.vmdk");
            writeTo(*child, 10, pattern(10, 1));
            makeIndependentOfParent(*child, options);
        }
        std::copy_n(pattern(10, 1).begin(), 10, content.begin() + 10);
        EXPECT_EQ(kMixedGrains, countStoredGrains("child.vmdk", kind.password));
        EXPECT_TRUE(sameBytes(content, contentAfterReopening("child.vmdk", kind.password)));
    }
}

TEST_F(Transfer, IndependentChildOfAnEncipheredParentHoldsWholeRecords) {
    DiskKind const secret{"", true, -1, "secret"};
    writeTo(*createSafe(secret, "parent.vmdk"), 0, mixedContent());
    makeIndependentOfParent(*createSafe(secret, "child.vmdk", "parent.vmdk"), options);
    EXPECT_EQ(kMixedGrains, countStoredGrains("child.vmdk", "secret"));
    EXPECT_TRUE(sameBytes(padded(mixedContent(), kSmallestDiskBytes),
                          contentAfterReopening("child.vmdk", "secret")));
}

} // namespace
} // namespace test_support
