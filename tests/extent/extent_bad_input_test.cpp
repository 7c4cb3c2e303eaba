#include <random>

#include <sys/resource.h>

#include "tests/extent/extent_fixture.h"

namespace extent_test {

namespace {

using kelm::CVMDKSparseExtentFile;

class ExtentBadInput : public ExtentTest {
protected:
    /// An extent with three stored grains.
    Bytes filledFile(Kind const& kind) {
        createExtent(kind);
        yx::P<CVMDKSparseExtentFile> extent = openExtent(kind);
        for (int grain = 0; grain < 3; ++grain)
            writeAt(*extent, grain * 4096, pattern(4096, static_cast<unsigned int>(grain)));
        extent.reset();
        return content();
    }
};

/// The words of a stream whose file has ended.
testing::AssertionResult endsUnexpectedly(std::function<void()> const& action) {
    try {
        action();
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() == yx::CIOError::UnexpectedEnd && error.getParams().find("uri"))
            return testing::AssertionSuccess();
        return testing::AssertionFailure() << "code " << error.getCode() << ": " << error.what();
    }
    return testing::AssertionFailure() << "threw nothing";
}

TEST_F(ExtentBadInput, DirectoriesOutsideTheFileFailAtTheOpening) {
    for (Kind const& kind : kAllKinds) {
        for (HeaderOffset const offset : {kRedundantDirectoryOffset, kDirectoryOffset}) {
            SCOPED_TRACE(kind.name + std::string(", header offset ") + std::to_string(offset));
            Bytes const good = filledFile(kind);
            setHeaderField(offset, 1 << 20, 8);
            EXPECT_TRUE(endsUnexpectedly([&] { openExtent(kind); }));
            setContent(good);
            setHeaderField(offset, 1ULL << 62, 8);
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::CorruptData,
                offset == kRedundantDirectoryOffset
                    ? "Invalid redundant grain directory position in VMDK sparse extent: "
                      "4611686018427387904"
                    : "Invalid grain directory position in VMDK sparse extent: "
                      "4611686018427387904",
                {{"uri", kExtentURI}}, [&] { openExtent(kind); }));
        }
    }
}

TEST_F(ExtentBadInput, TableOutsideTheFileFailsWhenItsGrainsAreReached) {
    createExtent(kPlain, 3 * 512, 1);
    Bytes bytes = content();
    // The directory lies behind the redundant one with its three tables; its second entry.
    put(bytes, 14 * 512 + 4, 1 << 20, 4);
    setContent(bytes);
    auto const cache = yx::makeObject<kelm::CVMDKGrainTableCache>(-1);
    yx::P<CVMDKSparseExtentFile> const extent =
        openExtent(kPlain, {.provider = provider.get(), .cache = cache.get()});
    EXPECT_NO_THROW(read(*extent, 0));
    EXPECT_TRUE(endsUnexpectedly([&] { extent->seek(600 * 512); }));
    EXPECT_EQ(extent->getPosition(), 0);
    EXPECT_TRUE(endsUnexpectedly([&] { extent->gatherSpaceInfo(); }));
    // Nor those of its neighbours, since tables are taken in runs of 32, whole or not at all.
    EXPECT_TRUE(endsUnexpectedly([&] { extent->seek(512); }));
    EXPECT_EQ(cache->getCachedTableCount(), 0);
}

TEST_F(ExtentBadInput, RedundantTableOutsideTheFileIsNoHindranceToReading) {
    filledFile(kPlain);
    Bytes bytes = content();
    put(bytes, 512, 1 << 20, 4);
    setContent(bytes);
    EXPECT_EQ(readAt(*openExtent(kPlain, {IIOStream::ReadOnly}), 0, 4096), pattern(4096, 0));
}

TEST_F(ExtentBadInput, FileCutBehindItsMetadataOpensAndFailsOnlyWhereItIsCut) {
    for (Kind const& kind : {kPlain, kEnciphered}) {
        SCOPED_TRACE(kind);
        Bytes const good = filledFile(kind);
        ASSERT_EQ(good.size(), 8192U + 3 * 4096);
        setContent(slice(good, 0, 8192 + 4096 + 100));
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kind, {IIOStream::ReadOnly});
        EXPECT_EQ(readAt(*extent, 0, 4096), pattern(4096, 0));
        EXPECT_TRUE(endsUnexpectedly([&] { readAt(*extent, 4096, 1); }));
        EXPECT_EQ(extent->getPosition(), 4096);
        EXPECT_EQ(readAt(*extent, 100, 3996), slice(pattern(4096, 0), 100, 3996));
        EXPECT_TRUE(endsUnexpectedly([&] { readAt(*extent, 8192, 1); }));
        EXPECT_EQ(readAt(*extent, 12288, 10), zeros(10));
    }
}

TEST_F(ExtentBadInput, CompressedFileCutInItsDataOpensAndFailsOnlyWhereItIsCut) {
    for (Kind const& kind : {kCompressed, kCompressedAndEnciphered}) {
        SCOPED_TRACE(kind);
        Bytes const good = filledFile(kind);
        auto const report = test_support::checkExtent(memory->getFile(uri), kStartGrainIndex);
        ASSERT_EQ(report.text(), "");
        setContent(slice(good, 0, report.grains.at(2).posSectors * 512 + 512));
        test_support::LogCapture log;
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kind, {IIOStream::ReadOnly});
        EXPECT_EQ(log.entries().size(), 1U);
        EXPECT_EQ(readAt(*extent, 0, 8192), concat({pattern(4096, 0), pattern(4096, 1)}));
        EXPECT_TRUE(endsUnexpectedly([&] { readAt(*extent, 8192, 1); }));
    }
}

TEST_F(ExtentBadInput, FileCutInItsMetadataFailsAtTheOpening) {
    Bytes const good = filledFile(kPlain);
    for (std::size_t const sizeBytes : {0U, 1U, 78U, 511U, 512U, 1024U, 3072U}) {
        setContent(slice(good, 0, sizeBytes));
        EXPECT_TRUE(endsUnexpectedly([&] { openExtent(kPlain); })) << sizeBytes;
    }
    // The grain table is not looked at before it is needed.
    setContent(slice(good, 0, 3584));
    yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {IIOStream::ReadOnly});
    EXPECT_TRUE(endsUnexpectedly([&] { extent->seek(0); }));
}

TEST_F(ExtentBadInput, GrainOfAnyPositionIsReadOrRefused) {
    Bytes const good = filledFile(kPlain);
    for (unsigned int const sector : {1U, 15U, 40U, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFFU}) {
        Bytes bytes = good;
        put(bytes, 7 * 512, sector, 4);
        setContent(bytes);
        yx::P<CVMDKSparseExtentFile> const extent = openExtent(kPlain, {IIOStream::ReadOnly});
        if (sector < 16)
            EXPECT_EQ(readAt(*extent, 0, 512), slice(bytes, sector * 512, 512));
        else
            EXPECT_TRUE(endsUnexpectedly([&] { readAt(*extent, 0, 1); })) << sector;
    }
}

/// The peak of this process's memory so far.
[[maybe_unused]] long peakMemoryKiB() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/// Uses an extent as a host would; whatever it meets must be an error of the framework.
void exercise(CVMDKSparseExtentFile& extent, bool writes) {
    auto const attempt = [](auto operation) {
        try {
            operation();
        } catch (yx::CError const& error) {
            EXPECT_FALSE(error.getMessage().isEmpty());
        }
    };
    Bytes buffer(5000);
    Buffer data;
    // A grain takes that much memory, as the header demands; one of this size is only sought.
    bool const isHuge = extent.getGrainSizeSectors() > 32768;
    for (__int64 const position : {__int64(0), __int64(4000), __int64(65535), __int64(1) << 40}) {
        attempt([&] { extent.seek(position); });
        attempt([&] { extent.isGrainWritten(); });
        if (!isHuge)
            attempt([&] { extent.read(buffer.data(), 5000); });
    }
    if (isHuge)
        return;
    attempt([&] { extent.seek(0); });
    attempt([&] { extent.readPreparedGrainData(data); });
    attempt([&] { extent.gatherSpaceInfo(); });
    if (!writes)
        return;
    attempt([&] { extent.seek(100); });
    attempt([&] { extent.write(buffer.data(), 5000); });
    attempt([&] { extent.makeGrainIndependentOfParent(3); });
    attempt([&] { extent.flushChanges(); });
}

TEST_F(ExtentBadInput, SpoiltHeadersAreNeverWorseThanAnError) {
    constexpr unsigned int kSeed = 20;
    constexpr int kRounds = 600;
    [[maybe_unused]] long const peakBefore = peakMemoryKiB();
    unsigned char const extremes[] = {0, 1, 0x7F, 0x80, 0xFE, 0xFF};
    int opened = 0;
    int refused = 0;
    for (Kind const& kind : kAllKinds) {
        Bytes const good = filledFile(kind);
        std::mt19937 random(kSeed);
        for (int round = 0; round < kRounds; ++round) {
            SCOPED_TRACE(kind.name + std::string(", seed ") + std::to_string(kSeed) + ", round " +
                         std::to_string(round));
            Bytes bytes = good;
            for (auto count = 1 + random() % 3; count > 0; --count) {
                std::size_t const offset = 4 + random() % 84;
                unsigned char const value = random() % 2 != 0
                                                ? extremes[random() % 6]
                                                : static_cast<unsigned char>(random());
                bytes[offset] = value;
                if (kind.compressed && random() % 4 != 0)
                    bytes[bytes.size() - 1024 + offset] = value;
            }
            // Now and then a directory or table is hit as well.
            if (random() % 4 == 0)
                bytes[512 + random() % (kind.compressed ? 11776 : 7680)] =
                    static_cast<unsigned char>(random());
            setContent(bytes);
            bool const writes = random() % 2 != 0;
            test_support::LogCapture log;
            test_support::IgnoredExceptionCapture ignored;
            try {
                yx::P<CVMDKSparseExtentFile> const extent = openExtent(
                    kind, {.access = writes ? IIOStream::ReadWrite : IIOStream::ReadOnly});
                ++opened;
                exercise(*extent, writes);
            } catch (yx::CError const& error) {
                ++refused;
                EXPECT_FALSE(error.getMessage().isEmpty());
            }
        }
    }
    // Both ways were gone often enough to mean something.
    EXPECT_GT(opened, 300);
    EXPECT_GT(refused, 300);
#if !defined(__SANITIZE_ADDRESS__)
    EXPECT_LT(peakMemoryKiB() - peakBefore, 256 * 1024);
#endif
}

} // namespace

} // namespace extent_test
