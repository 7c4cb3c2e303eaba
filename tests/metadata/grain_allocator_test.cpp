#include "kelm/metadata/grain_allocator.h"

#include <limits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/metadata/file_image.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/scripted_stream.h"
#include "yx/buffer_stream.h"

namespace kelm {

namespace grain_allocator_test {

namespace {

using metadata_test::FileImage;
using test_support::Bytes;
using test_support::ScriptedStream;
using test_support::slice;
using test_support::toBuffer;
using Kind = ScriptedStream::Kind;
using Operation = ScriptedStream::Operation;
using IgnoredExceptions = std::vector<test_support::IgnoredExceptionCapture::Entry>;
using Operations = std::vector<Operation>;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

constexpr __int64 kGrainSizeSectors = 8;
constexpr int kTrailSizeBytes = 1536;

/// Tells apart writes that hand over the caller's bytes.
class KeepBufferStream : public ScriptedStream {
public:
    using ScriptedStream::ScriptedStream;

    void writeKeepBuffer(yx::TConstBufferSlice<unsigned char> const& slice,
                         yx::IWriteBarrier* barrier) override {
        m_kept.push_back(slice.getData());
        ScriptedStream::writeKeepBuffer(slice, barrier);
    }

    /// Where the bytes of each such write were.
    std::vector<void const*> const& kept() const { return m_kept; }

private:
    std::vector<void const*> m_kept;
};

Bytes filled(int sizeBytes, unsigned char value) {
    return Bytes(static_cast<std::size_t>(sizeBytes), value);
}

/// The trail: three sectors of different bytes.
Bytes trail() {
    return test_support::concat({filled(512, 0xA1), filled(512, 0xA2), filled(512, 0xA3)});
}

/// One table of four entries at sector 2, its directory at sector 1.
FileImage plainFile(int sectors) {
    return FileImage(sectors).put32(1, {2});
}

/// The same with slot sizes: their directory at sector 4, their table at sector 6. Ends in
/// `closing` from sector 7 on.
Bytes compressedFile(Bytes const& closing) {
    return test_support::concat(
        {FileImage(7).put32(1, {2}).putSlotDirectoryMarker(3, 1).put32(4, {6}).bytes(), closing});
}

class GrainAllocator : public testing::Test {
protected:
    /// An extent of four grains without trail, new slots aligned to grains.
    yx::P<CVMDKGrainAllocator> openPlain(int fileSectors,
                                         yx::IIOStream::Access access = kReadWrite) {
        stream = yx::makeObject<KeepBufferStream>(plainFile(fileSectors).bytes());
        return open(access, kGrainSizeSectors, kGrainSizeSectors, false, {});
    }

    /// An extent of four grains whose file ends in `closing`, new slots aligned to sectors.
    yx::P<CVMDKGrainAllocator> openCompressed(Bytes const& closing = trail(),
                                              yx::IIOStream::Access access = kReadWrite) {
        stream = yx::makeObject<KeepBufferStream>(compressedFile(closing));
        return open(access, kGrainSizeSectors, 1, true, trail());
    }

    /// Makes a directory, which is always open for writing, and an allocator on the stream, and
    /// forgets the operations of the directory.
    yx::P<CVMDKGrainAllocator> open(yx::IIOStream::Access access, __int64 grainSizeSectors,
                                    __int64 alignmentSectors, bool compressed,
                                    Bytes const& trailData) {
        directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), kReadWrite, 1, 0,
                                                        4 * grainSizeSectors, grainSizeSectors, 4,
                                                        compressed, cache.get());
        stream->operations().clear();
        return yx::makeObject<CVMDKGrainAllocator>(stream.get(), access, grainSizeSectors,
                                                   alignmentSectors, directory.get(),
                                                   toBuffer(trailData));
    }

    static __int64 alloc(CVMDKGrainAllocator& allocator, __int64 grainIndex, int sizeBytes,
                         int slotSizeSectors) {
        Bytes const data = filled(sizeBytes, 0xEE);
        return allocator.allocNewGrain(grainIndex, data.data(), sizeBytes, slotSizeSectors);
    }

    std::pair<__int64, __int64> infoOf(__int64 grainIndex) {
        std::pair<__int64, __int64> info{-1, -1};
        directory->getGrainInfo(grainIndex, info.first, info.second);
        return info;
    }

    Operations takeWrites() {
        Operations writes = stream->operationsOf(Kind::Write);
        stream->operations().clear();
        return writes;
    }

    Bytes tail(int sizeBytes) const {
        return {stream->content().end() - sizeBytes, stream->content().end()};
    }

    using Info = std::pair<__int64, __int64>;

    yx::P<CVMDKGrainTableCache> cache = yx::makeObject<CVMDKGrainTableCache>();
    yx::P<KeepBufferStream> stream;
    yx::P<CVMDKGrainDirectory> directory;
};

// --- Opening.

TEST_F(GrainAllocator, WithoutTrailReadsNothingAndStartsAtTheEndOfTheFile) {
    yx::P<CVMDKGrainAllocator> const allocator = openPlain(16);
    EXPECT_EQ(stream->operations(), Operations{});
    EXPECT_EQ(alloc(*allocator, 0, 4096, 8), 16);
}

TEST_F(GrainAllocator, ReadsTheTrailAndRestoresThePosition) {
    stream = yx::makeObject<KeepBufferStream>(compressedFile(trail()));
    directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), kReadWrite, 1, 0, 32, 8, 4, true,
                                                    cache.get());
    stream->operations().clear();
    stream->seek(77);
    CVMDKGrainAllocator const allocator(stream.get(), kReadWrite, 8, 1, directory.get(),
                                        toBuffer(trail()));
    EXPECT_EQ(stream->operations(), (Operations{{Kind::Read, 7 * 512, kTrailSizeBytes}}));
    EXPECT_EQ(stream->getPosition(), 77);
}

TEST_F(GrainAllocator, IntactTrailIsNotWrittenAgain) {
    test_support::LogCapture log;
    yx::P<CVMDKGrainAllocator> allocator = openCompressed();
    allocator->flushChangesToStream();
    allocator.reset();
    EXPECT_EQ(takeWrites(), Operations{});
    EXPECT_EQ(log.entries().size(), 0U);
}

TEST_F(GrainAllocator, OtherBytesAtTheEndAreKeptAndTheTrailIsWrittenBehindThem) {
    // One byte off, at the start and at the end.
    for (std::size_t const wrong : {0U, 1535U}) {
        test_support::LogCapture log;
        Bytes closing = trail();
        closing[wrong] ^= 1;
        yx::P<CVMDKGrainAllocator> const allocator = openCompressed(closing);
        EXPECT_EQ(log.entries(),
                  (std::vector<test_support::LogCapture::Entry>{
                      {yx::LogLevel::Warning,
                       "VMDK trail data is not what we expected. Assuming that it is not trail "
                       "data - we won't overwrite it.",
                       "", ""}}));
        EXPECT_EQ(takeWrites(), Operations{});

        allocator->flushChangesToStream();
        EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 10 * 512, kTrailSizeBytes}}));
        EXPECT_EQ(slice(stream->content(), 7 * 512, kTrailSizeBytes), closing);
        EXPECT_EQ(tail(kTrailSizeBytes), trail());
    }
}

TEST_F(GrainAllocator, NewGrainGoesBehindUnknownBytesAtTheEnd) {
    test_support::LogCapture const log;
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed(filled(1536, 0x55));
    EXPECT_EQ(alloc(*allocator, 0, 512, 1), 10);
    allocator->flushChangesToStream();
    EXPECT_EQ(slice(stream->content(), 7 * 512, 1536), filled(1536, 0x55));
    EXPECT_EQ(slice(stream->content(), 10 * 512, 512), filled(512, 0xEE));
    EXPECT_EQ(tail(kTrailSizeBytes), trail());
    EXPECT_EQ(stream->content().size(), 14U * 512U);
}

TEST_F(GrainAllocator, UnknownBytesAtTheEndOfAReadOnlyExtentAreLoggedAndNothingIsWritten) {
    test_support::LogCapture log;
    yx::P<CVMDKGrainAllocator> allocator = openCompressed(filled(1536, 0x55), kReadOnly);
    EXPECT_EQ(log.entries().size(), 1U);
    allocator->flushChangesToStream();
    allocator.reset();
    EXPECT_EQ(takeWrites(), Operations{});
}

TEST_F(GrainAllocator, FileShorterThanTheTrailFailsWithTheErrorOfTheStream) {
    stream = yx::makeObject<KeepBufferStream>(plainFile(3).bytes());
    directory = yx::makeObject<CVMDKGrainDirectory>(stream.get(), kReadWrite, 1, 0, 0, 8, 4, false,
                                                    cache.get());
    yx::TBuffer<unsigned char> content = toBuffer(filled(1535, 0));
    yx::CBufferStream shortStream(&content, 2.0);
    EXPECT_THROW(yx::makeObject<CVMDKGrainAllocator>(&shortStream, kReadWrite, 8, 1,
                                                     directory.get(), toBuffer(trail())),
                 yx::CIOError);
}

TEST_F(GrainAllocator, SizesThatCannotBeAreRefused) {
    constexpr __int64 kMax = std::numeric_limits<__int64>::max();
    openPlain(16);
    struct {
        __int64 grainSizeSectors;
        char const* message;
    } const grainSizes[] = {
        {0, "Invalid grain size in VMDK sparse extent: 0"},
        {-1, "Invalid grain size in VMDK sparse extent: -1"},
        {2097152, "Invalid grain size in VMDK sparse extent: 2097152"},
        {kMax, "Invalid grain size in VMDK sparse extent: 9223372036854775807"},
    };
    for (auto const& c : grainSizes) {
        EXPECT_TRUE(test_support::throwsIOError(
            yx::CIOError::CorruptData, c.message, {{"uri", "test:/stream"}}, [&] {
                yx::makeObject<CVMDKGrainAllocator>(stream.get(), kReadWrite, c.grainSizeSectors, 1,
                                                    directory.get(), toBuffer(Bytes()));
            }));
    }
    struct {
        __int64 alignmentSectors;
        char const* message;
    } const alignments[] = {
        {0, "Invalid grain alignment: 0"},
        {-1, "Invalid grain alignment: -1"},
        {4194304, "Invalid grain alignment: 4194304"},
        {kMax, "Invalid grain alignment: 9223372036854775807"},
    };
    for (auto const& c : alignments) {
        EXPECT_TRUE(test_support::throwsInvalidArg(
            "CVMDKGrainAllocator constructor", c.message, {{"uri", "test:/stream"}}, [&] {
                yx::makeObject<CVMDKGrainAllocator>(stream.get(), kReadWrite, 8, c.alignmentSectors,
                                                    directory.get(), toBuffer(Bytes()));
            }));
    }
}

// --- Allocation.

TEST_F(GrainAllocator, GapUpToTheAlignmentIsFilledWithZeros) {
    stream = yx::makeObject<KeepBufferStream>(plainFile(130).bytes());
    yx::P<CVMDKGrainAllocator> const allocator = open(kReadWrite, 128, 128, false, {});
    EXPECT_EQ(alloc(*allocator, 2, 65536, 128), 256);
    EXPECT_EQ(takeWrites(),
              (Operations{{Kind::Write, 66560, 64512}, {Kind::Write, 131072, 65536}}));
    EXPECT_EQ(slice(stream->content(), 66560, 64512), filled(64512, 0));
    EXPECT_EQ(tail(65536), filled(65536, 0xEE));
    EXPECT_EQ(infoOf(2), (Info{256, 128}));
    EXPECT_EQ(alloc(*allocator, 3, 65536, 128), 384);
}

TEST_F(GrainAllocator, GapMayEndWithinASectorAndExceedTwoGrains) {
    Bytes content = plainFile(17).bytes();
    content.resize(content.size() + 1);
    stream = yx::makeObject<KeepBufferStream>(content);
    yx::P<CVMDKGrainAllocator> const allocator = open(kReadWrite, 1, 16, false, {});
    EXPECT_EQ(alloc(*allocator, 0, 512, 1), 32);
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 17 * 512 + 1, 15 * 512 - 1},
                                        {Kind::Write, 32 * 512, 512}}));
}

TEST_F(GrainAllocator, NewGrainIsWrittenOverTheTrailWhichTheFlushWritesBehindIt) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    EXPECT_EQ(alloc(*allocator, 1, 1024, 2), 7);
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512, 1024}}));
    EXPECT_EQ(infoOf(1), (Info{7, 2}));

    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 9 * 512, kTrailSizeBytes}}));
    EXPECT_EQ(slice(stream->content(), 7 * 512, 1024), filled(1024, 0xEE));
    EXPECT_EQ(tail(kTrailSizeBytes), trail());

    // The next one goes over the trail again.
    EXPECT_EQ(alloc(*allocator, 2, 512, 1), 9);
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(),
              (Operations{{Kind::Write, 9 * 512, 512}, {Kind::Write, 10 * 512, kTrailSizeBytes}}));
    EXPECT_EQ(stream->content().size(), 13U * 512U);
}

TEST_F(GrainAllocator, TrailIsWrittenOnceForSeveralGrainsAndSeveralFlushes) {
    yx::P<CVMDKGrainAllocator> allocator = openCompressed();
    alloc(*allocator, 0, 512, 1);
    alloc(*allocator, 1, 512, 1);
    allocator->flushChangesToStream();
    allocator->flushChangesToStream();
    allocator.reset();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512, 512},
                                        {Kind::Write, 8 * 512, 512},
                                        {Kind::Write, 9 * 512, kTrailSizeBytes}}));
}

TEST_F(GrainAllocator, WithoutTrailAFlushWritesNothing) {
    yx::P<CVMDKGrainAllocator> const allocator = openPlain(16);
    alloc(*allocator, 0, 4096, 8);
    takeWrites();
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), Operations{});
}

TEST_F(GrainAllocator, RestOfTheSlotIsFilledWithZeros) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    EXPECT_EQ(alloc(*allocator, 0, 100, 1), 7);
    EXPECT_EQ(takeWrites(),
              (Operations{{Kind::Write, 7 * 512, 100}, {Kind::Write, 7 * 512 + 100, 412}}));
    EXPECT_EQ(slice(stream->content(), 7 * 512, 100), filled(100, 0xEE));
    EXPECT_EQ(slice(stream->content(), 7 * 512 + 100, 412), filled(412, 0));
    EXPECT_EQ(alloc(*allocator, 1, 512, 1), 8);
}

TEST_F(GrainAllocator, LargeRestIsFilledInPiecesOfTwoGrains) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    EXPECT_EQ(alloc(*allocator, 0, 100, 40), 7);
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 3584, 100},
                                        {Kind::Write, 3684, 8192},
                                        {Kind::Write, 11876, 8192},
                                        {Kind::Write, 20068, 3996}}));
    EXPECT_EQ(infoOf(0), (Info{7, 40}));
    EXPECT_EQ(alloc(*allocator, 1, 512, 1), 47);
}

TEST_F(GrainAllocator, LargeRestIsFilledInPiecesOfTheAlignmentIfThatIsMore) {
    stream = yx::makeObject<KeepBufferStream>(plainFile(16).bytes());
    yx::P<CVMDKGrainAllocator> const allocator = open(kReadWrite, 1, 16, false, {});
    EXPECT_TRUE(test_support::throwsInvalidArg(
        "CVMDKGrainTable::setGrainInfo",
        "Invalid grain slot size - it must equal the grain size (slot size: 20, grain size: 1)",
        {{"uri", "test:/stream"}}, [&] { alloc(*allocator, 0, 0, 20); }));
    EXPECT_EQ(takeWrites(),
              (Operations{
                  {Kind::Write, 8192, 0}, {Kind::Write, 8192, 8192}, {Kind::Write, 16384, 2048}}));
}

TEST_F(GrainAllocator, KeptBufferIsHandedToTheStreamWithoutACopy) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    yx::TBuffer<unsigned char> const data = toBuffer(filled(612, 0xEE));
    yx::TConstBufferSlice<unsigned char> const slice(&data, 100, 512);
    EXPECT_EQ(allocator->allocNewGrainKeepBuffer(1, slice, 2), 7);
    EXPECT_EQ(stream->kept(), (std::vector<void const*>{data.getData() + 100}));
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512, 512}, {Kind::Write, 8 * 512, 512}}));
    EXPECT_EQ(infoOf(1), (Info{7, 2}));

    alloc(*allocator, 2, 512, 1);
    EXPECT_EQ(stream->kept().size(), 1U);
}

TEST_F(GrainAllocator, TableIsChangedAfterTheDataIsWrittenAndReachesTheFileLater) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    alloc(*allocator, 1, 512, 1);
    EXPECT_EQ(stream->operations().back(), (Operation{Kind::Read, 6 * 512, 8}));
    EXPECT_EQ(slice(stream->content(), 2 * 512 + 4, 4), (Bytes{0, 0, 0, 0}));
    takeWrites();
    directory->flushChangesToStream();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 2 * 512, 16}, {Kind::Write, 6 * 512, 8}}));
    EXPECT_EQ(slice(stream->content(), 2 * 512 + 4, 4), (Bytes{7, 0, 0, 0}));
    EXPECT_EQ(slice(stream->content(), 6 * 512 + 2, 2), (Bytes{1, 0}));
}

// --- Refusals and failures.

TEST_F(GrainAllocator, SlotSmallerThanTheDataIsRefusedBeforeTheAccessIsLookedAt) {
    struct {
        int sizeBytes;
        int slotSizeSectors;
        char const* message;
    } const cases[] = {
        {513, 1,
         "Slot size is smaller than grain data size (slot size: 512 bytes, grain data size: 513 "
         "bytes)"},
        {1, 0,
         "Slot size is smaller than grain data size (slot size: 0 bytes, grain data size: 1 "
         "bytes)"},
        {1, -1,
         "Slot size is smaller than grain data size (slot size: -512 bytes, grain data size: 1 "
         "bytes)"},
        // 4 GiB and 2 GiB, in 32 bits.
        {1, 0x800000,
         "Slot size is smaller than grain data size (slot size: 0 bytes, grain data size: 1 "
         "bytes)"},
        {1, 0x400000,
         "Slot size is smaller than grain data size (slot size: -2147483648 bytes, grain data "
         "size: 1 bytes)"},
    };
    for (yx::IIOStream::Access const access : {kReadOnly, kReadWrite}) {
        yx::P<CVMDKGrainAllocator> const allocator = openCompressed(trail(), access);
        for (auto const& c : cases) {
            EXPECT_TRUE(test_support::throwsInvalidArg(
                "CVMDKGrainAllocator::allocNewGrain", c.message, {},
                [&] { alloc(*allocator, 0, c.sizeBytes, c.slotSizeSectors); }));
            yx::TBuffer<unsigned char> const data = toBuffer(filled(c.sizeBytes, 0xEE));
            EXPECT_TRUE(test_support::throwsInvalidArg(
                "CVMDKGrainAllocator::allocNewGrain", c.message, {}, [&] {
                    allocator->allocNewGrainKeepBuffer(
                        0, yx::TConstBufferSlice<unsigned char>(&data, 0, c.sizeBytes),
                        c.slotSizeSectors);
                }));
        }
        EXPECT_EQ(takeWrites(), Operations{});
    }
}

TEST_F(GrainAllocator, NegativeDataSizeIsRefused) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    unsigned char const byte = 0;
    EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainAllocator::allocNewGrain",
                                               "Invalid grain data size: -1", {},
                                               [&] { allocator->allocNewGrain(0, &byte, -1, 1); }));
}

TEST_F(GrainAllocator, ReadOnlyAccessIsRefused) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed(trail(), kReadOnly);
    EXPECT_TRUE(test_support::throwsError(
        "Internal error: CVMDKGrainAllocator::allocNewGrain was called, but the grain allocator "
        "was not opened for writing.",
        {}, [&] { alloc(*allocator, 0, 512, 1); }));
    EXPECT_EQ(takeWrites(), Operations{});
}

TEST_F(GrainAllocator, AccessThatIsNeitherReadOnlyNorReadWriteIsLetThrough) {
    yx::P<CVMDKGrainAllocator> const allocator =
        openCompressed(trail(), static_cast<yx::IIOStream::Access>(2));
    EXPECT_EQ(alloc(*allocator, 0, 512, 1), 7);
}

TEST_F(GrainAllocator, FailureInTheGapLeavesEverythingAsItWas) {
    Bytes content = compressedFile(trail());
    content.erase(content.begin() + 6 * 512 + 100, content.begin() + 6 * 512 + 200);
    stream = yx::makeObject<KeepBufferStream>(content);
    yx::P<CVMDKGrainAllocator> const allocator = open(kReadWrite, 8, 1, true, trail());
    stream->failOnce(Kind::Write);
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { alloc(*allocator, 0, 512, 1); }));
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512 - 100, 100}}));
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), Operations{});
    EXPECT_EQ(infoOf(0), (Info{0, 0}));
    EXPECT_EQ(alloc(*allocator, 0, 512, 1), 7);
}

TEST_F(GrainAllocator, FailureOfTheDataBehindAGapLeavesTheNextPositionBeforeTheGap) {
    Bytes content = compressedFile(trail());
    content.erase(content.begin() + 6 * 512 + 100, content.begin() + 6 * 512 + 200);
    stream = yx::makeObject<KeepBufferStream>(content);
    yx::P<CVMDKGrainAllocator> const allocator = open(kReadWrite, 8, 1, true, trail());
    stream->setFault([](Operation const& operation) {
        return operation.kind == Kind::Write && operation.position == 7 * 512;
    });
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { alloc(*allocator, 0, 512, 1); }));
    stream->setFault({});
    takeWrites();
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512 - 100, kTrailSizeBytes}}));
    EXPECT_EQ(stream->content(), content);
}

TEST_F(GrainAllocator, FailureOfTheDataGivesNoSlotAndTheFlushRestoresTheTrail) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    stream->setTornWrites(true);
    stream->failOnce(Kind::Write);
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { alloc(*allocator, 0, 1024, 2); }));
    EXPECT_EQ(infoOf(0), (Info{0, 0}));
    EXPECT_NE(tail(kTrailSizeBytes), trail());
    takeWrites();
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 7 * 512, kTrailSizeBytes}}));
    EXPECT_EQ(stream->content(), compressedFile(trail()));
    EXPECT_EQ(alloc(*allocator, 0, 1024, 2), 7);
}

TEST_F(GrainAllocator, FailureBehindTheDataSpendsWhatWasWritten) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    stream->setFault([](Operation const& operation) {
        return operation.kind == Kind::Write && operation.position == 3684 + 8192;
    });
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { alloc(*allocator, 0, 100, 40); }));
    stream->setFault({});
    EXPECT_EQ(infoOf(0), (Info{0, 0}));
    takeWrites();
    // 7 sectors, 100 bytes and 8192 bytes: the next sector is 24, after a gap of 412 bytes.
    EXPECT_EQ(alloc(*allocator, 0, 512, 1), 24);
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 11876, 412}, {Kind::Write, 24 * 512, 512}}));
}

TEST_F(GrainAllocator, RefusalByTheTableSpendsTheSlot) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    EXPECT_TRUE(test_support::throwsInvalidArg("CVMDKGrainDirectory::getGrainTable",
                                               "invalid table index: 1", {{"uri", "test:/stream"}},
                                               [&] { alloc(*allocator, 4, 512, 1); }));
    EXPECT_EQ(alloc(*allocator, 3, 512, 1), 8);
}

TEST_F(GrainAllocator, FailedFlushIsTriedAgain) {
    yx::P<CVMDKGrainAllocator> const allocator = openCompressed();
    alloc(*allocator, 0, 512, 1);
    stream->failOnce(Kind::Write);
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::IOFailure, "Scripted failure.",
                                            {{"uri", "test:/stream"}},
                                            [&] { allocator->flushChangesToStream(); }));
    takeWrites();
    allocator->flushChangesToStream();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 8 * 512, kTrailSizeBytes}}));
}

TEST_F(GrainAllocator, LastReleaseWritesTheTrail) {
    yx::P<CVMDKGrainAllocator> allocator = openCompressed();
    alloc(*allocator, 0, 512, 1);
    takeWrites();
    allocator.reset();
    EXPECT_EQ(takeWrites(), (Operations{{Kind::Write, 8 * 512, kTrailSizeBytes}}));
}

TEST_F(GrainAllocator, FailureInTheLastReleaseIsReportedAndSwallowed) {
    test_support::IgnoredExceptionCapture ignored;
    yx::P<CVMDKGrainAllocator> allocator = openCompressed();
    alloc(*allocator, 0, 512, 1);
    stream->failOnce(Kind::Write);
    allocator.reset();
    EXPECT_EQ(ignored.entries(),
              (IgnoredExceptions{{"kelm::CVMDKGrainAllocator", "Scripted failure.", true}}));
    EXPECT_EQ(stream->content().size(), 10U * 512U);
}

} // namespace

} // namespace grain_allocator_test

} // namespace kelm
