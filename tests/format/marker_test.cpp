#include "kelm/format/marker.h"

#include <array>

#include <gtest/gtest.h>

#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"

namespace {

using namespace kelm;
using test_support::ByteBuilder;
using test_support::Bytes;
using test_support::ScriptedStream;
using test_support::throwsError;
using test_support::throwsInvalidArg;
using test_support::zeroBuffer;

Bytes marker(std::uint64_t value, std::uint32_t type) {
    return ByteBuilder().u64(value).u32(0).u32(type).zeros(496).bytes();
}

struct MarkerCase {
    VMDKMarkerID type;
    __int64 value;
    Bytes start;
};

std::vector<MarkerCase> const kMarkerCases = {
    {VMDKMarkerEndOfStream, 0, {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
    {VMDKMarkerGrainTable, 4, {4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0}},
    {VMDKMarkerGrainDirectory, 0x0102, {2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0}},
    {VMDKMarkerFooter, 1, {1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0, 0}},
    {VMDKMarkerYxSlotSizeTable, 2, {2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x01, 0x90, 0x34, 0x18}},
    {VMDKMarkerYxSlotSizeDirectory,
     -2,
     {0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0x02, 0x90, 0x34, 0x18}},
};

TEST(Marker, IsOneSectorOfValueTypeAndZeros) {
    for (MarkerCase const& test : kMarkerCases) {
        ScriptedStream stream;
        yx::CDataOutStream out(&stream);
        writeVMDKMarker(out, test.type, test.value, zeroBuffer(512));
        EXPECT_EQ(stream.content(), ByteBuilder().append(test.start).zeros(496).bytes())
            << test.type;
    }
}

TEST(Marker, WritesItsPaddingInOnePiece) {
    ScriptedStream stream;
    yx::CDataOutStream out(&stream);
    writeVMDKMarker(out, VMDKMarkerFooter, 1, zeroBuffer(2048));
    auto const writes = stream.operationsOf(ScriptedStream::Kind::Write);
    EXPECT_EQ(writes.back(), (ScriptedStream::Operation{ScriptedStream::Kind::Write, 16, 496}));
}

TEST(Marker, IsRecognisedByItsType) {
    for (MarkerCase const& written : kMarkerCases) {
        Bytes const sector = ByteBuilder().append(written.start).zeros(496).bytes();
        for (MarkerCase const& wanted : kMarkerCases) {
            __int64 value = 99;
            bool const same = written.type == wanted.type;
            EXPECT_EQ(isVMDKMarker(sector.data(), wanted.type, &value), same);
            EXPECT_EQ(value, same ? written.value : 0);
            EXPECT_EQ(isVMDKMarker(sector.data(), wanted.type, nullptr), same);
        }
    }
}

TEST(Marker, OneByteInItsPaddingMakesItNone) {
    for (std::size_t offset = 16; offset < 512; ++offset) {
        Bytes sector = marker(7, 1);
        sector[offset] = 1;
        __int64 value = 99;
        EXPECT_FALSE(isVMDKMarker(sector.data(), VMDKMarkerGrainTable, &value)) << offset;
        EXPECT_EQ(value, 0);
    }
}

TEST(Marker, SizeWordMakesItNone) {
    for (std::size_t offset = 8; offset < 12; ++offset) {
        Bytes sector = marker(7, 1);
        sector[offset] = 0x80;
        __int64 value = 99;
        EXPECT_FALSE(isVMDKMarker(sector.data(), VMDKMarkerGrainTable, &value)) << offset;
        EXPECT_EQ(value, 0);
    }
}

TEST(Marker, NeedsNoAlignment) {
    Bytes const bytes = ByteBuilder().u8(0xEE).append(marker(0x0123456789ABCDEF, 3)).bytes();
    __int64 value = 0;
    EXPECT_TRUE(isVMDKMarker(bytes.data() + 1, VMDKMarkerFooter, &value));
    EXPECT_EQ(value, 0x0123456789ABCDEF);
}

TEST(Marker, ZeroBufferThatIsTooSmallIsRefused) {
    ScriptedStream stream;
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(throwsInvalidArg("writeVMDKMarker", "Zero buffer too small: 495", [&] {
        writeVMDKMarker(out, VMDKMarkerFooter, 1, zeroBuffer(495));
    }));
    EXPECT_TRUE(throwsInvalidArg("vmdkWritePadding", "Zero buffer too small: 0",
                                 [&] { vmdkWritePadding(stream, 1, zeroBuffer(0)); }));
    EXPECT_EQ(stream.content().size(), 0u);
}

TEST(Padding, IsWrittenInPiecesOfTheZeroBuffer) {
    using Operation = ScriptedStream::Operation;
    constexpr auto kWrite = ScriptedStream::Kind::Write;
    struct Case {
        int byteCount;
        std::vector<Operation> writes;
    };
    for (auto const& [byteCount, writes] : std::vector<Case>{
             {-1, {}},
             {0, {}},
             {1, {{kWrite, 0, 1}}},
             {2048, {{kWrite, 0, 2048}}},
             {5000, {{kWrite, 0, 2048}, {kWrite, 2048, 2048}, {kWrite, 4096, 904}}},
         }) {
        ScriptedStream stream;
        vmdkWritePadding(stream, byteCount, zeroBuffer(2048));
        EXPECT_EQ(stream.operationsOf(kWrite), writes);
        EXPECT_EQ(stream.content(), Bytes(static_cast<std::size_t>(std::max(byteCount, 0)), 0));
    }
}

TEST(StreamPosition, IsCountedInSectors) {
    ScriptedStream stream;
    EXPECT_EQ(getStreamPositionVMDKSectors(stream), 0);
    stream.seek(0x20000000000);
    EXPECT_EQ(getStreamPositionVMDKSectors(stream), 0x100000000);
}

TEST(StreamPosition, WithinASectorIsAnInternalError) {
    for (auto const& [position, text] :
         {std::pair(511, "511"), std::pair(513, "513"), std::pair(1000, "1000")}) {
        ScriptedStream stream;
        stream.seek(position);
        EXPECT_TRUE(throwsError("Internal error in kelm::getStreamPositionVMDKSectors. Stream "
                                "position should be a multiple of 512 but it is not.",
                                {{"position", text}, {"uri", "test:/stream"}},
                                [&] { getStreamPositionVMDKSectors(stream); }));
    }
}

TEST(MetadataSizes, TablesHold512Grains) {
    for (auto const& [grains, tables] :
         {std::pair(0LL, 0LL), std::pair(1LL, 1LL), std::pair(512LL, 1LL), std::pair(513LL, 2LL),
          std::pair(32768LL, 64LL), std::pair(0x7FFFFFFFFFFFFFFFLL, 0x40000000000000LL)})
        EXPECT_EQ(getVMDKTableCount(grains), tables) << grains;
}

TEST(MetadataSizes, DirectoriesAreWholeSectorsCountedIn32Bits) {
    for (auto const& [tables, sectors] :
         {std::pair(0LL, 0LL), std::pair(1LL, 1LL), std::pair(128LL, 1LL), std::pair(129LL, 2LL),
          std::pair(65536LL, 512LL), std::pair(0x40000000LL, 0LL), std::pair(0x40000001LL, 1LL)})
        EXPECT_EQ(getVMDKDirectorySizeSectors(tables), sectors) << tables;
}

/// What should stand behind `startSector` sectors of other content.
Bytes grainMetadata(std::uint32_t startSector, std::uint32_t tableCount, bool withMarkers) {
    std::uint32_t const directorySectors = tableCount == 0 ? 0 : (tableCount - 1) / 128 + 1;
    ByteBuilder builder;
    for (std::uint32_t i = 0; i < tableCount; ++i) {
        std::uint32_t const firstTable = startSector + directorySectors;
        builder.u32(withMarkers ? firstTable + 5 * i + 1 : firstTable + 4 * i);
    }
    builder.padTo(512);
    for (std::uint32_t i = 0; i < tableCount; ++i) {
        if (withMarkers)
            builder.append(marker(4, 1));
        builder.zeros(2048);
    }
    return builder.bytes();
}

Bytes slotMetadata(std::uint32_t startSector, std::uint32_t tableCount) {
    std::uint32_t const directorySectors = tableCount == 0 ? 0 : (tableCount - 1) / 128 + 1;
    ByteBuilder builder;
    builder.append(marker(directorySectors, 0x18349002));
    for (std::uint32_t i = 0; i < tableCount; ++i)
        builder.u32(startSector + 1 + directorySectors + 3 * i + 1);
    builder.padTo(512);
    for (std::uint32_t i = 0; i < tableCount; ++i)
        builder.append(marker(2, 0x18349001)).zeros(1024);
    return builder.bytes();
}

/// What a writer puts behind `startSector` sectors.
template <class Writer>
Bytes written(std::uint32_t startSector, Writer writer) {
    ScriptedStream stream(Bytes(startSector * 512, 0xEE));
    stream.seek(startSector * 512);
    yx::CDataOutStream out(&stream);
    writer(out);
    return Bytes(stream.content().begin() + startSector * 512, stream.content().end());
}

std::uint32_t entryAt(Bytes const& directory, std::size_t index) {
    std::uint32_t value = 0;
    for (std::size_t i = 4; i-- > 0;)
        value = value << 8 | directory.at(index * 4 + i);
    return value;
}

TEST(GrainDirectoryCreation, WritesDirectoryAndTables) {
    for (std::uint32_t const startSector : {0u, 1u, 21u}) {
        for (std::uint32_t const tableCount : {0u, 1u, 2u, 127u, 128u, 129u, 300u}) {
            for (bool const withMarkers : {false, true}) {
                for (std::size_t const zeroBufferSize : {512u, 1000u, 2048u, 70000u}) {
                    Bytes const actual = written(startSector, [&](yx::CDataOutStream& out) {
                        writeEmptyVMDKGrainDirectoryAndTables(
                            out, tableCount, zeroBuffer(zeroBufferSize), withMarkers);
                    });
                    EXPECT_TRUE(actual == grainMetadata(startSector, tableCount, withMarkers))
                        << startSector << ' ' << tableCount << ' ' << withMarkers;
                }
            }
        }
    }
}

TEST(GrainDirectoryCreation, PointsBehindTheMarkersOfTheTables) {
    // 130 tables: 2 sectors of directory at sector 10, the first table's place at sector 12.
    Bytes const plain = written(10, [](yx::CDataOutStream& out) {
        writeEmptyVMDKGrainDirectoryAndTables(out, 130, zeroBuffer(2048), false);
    });
    EXPECT_EQ(entryAt(plain, 0), 12u);
    EXPECT_EQ(entryAt(plain, 1), 16u);
    EXPECT_EQ(plain.size(), (2u + 130u * 4u) * 512u);

    Bytes const marked = written(10, [](yx::CDataOutStream& out) {
        writeEmptyVMDKGrainDirectoryAndTables(out, 130, zeroBuffer(2048), true);
    });
    EXPECT_EQ(entryAt(marked, 0), 13u);
    EXPECT_EQ(entryAt(marked, 1), 18u);
    EXPECT_EQ(marked.size(), (2u + 130u * 5u) * 512u);
}

TEST(GrainDirectoryCreation, FillsTheDirectorysLastSector) {
    Bytes const full = written(0, [](yx::CDataOutStream& out) {
        writeEmptyVMDKGrainDirectoryAndTables(out, 128, zeroBuffer(2048), false);
    });
    EXPECT_EQ(entryAt(full, 127), 1u + 4u * 127u);
    EXPECT_EQ(entryAt(full, 128), 0u) << "the first table follows at once";
    EXPECT_EQ(full.size(), (1u + 128u * 4u) * 512u);

    Bytes const more = written(0, [](yx::CDataOutStream& out) {
        writeEmptyVMDKGrainDirectoryAndTables(out, 129, zeroBuffer(2048), false);
    });
    EXPECT_EQ(entryAt(more, 128), 2u + 4u * 128u);
    EXPECT_EQ(Bytes(more.begin() + 516, more.begin() + 1024), Bytes(508, 0));
    EXPECT_EQ(more.size(), (2u + 129u * 4u) * 512u);
}

TEST(SlotSizeDirectoryCreation, WritesMarkerDirectoryAndTables) {
    for (std::uint32_t const startSector : {0u, 1u, 21u}) {
        for (std::uint32_t const tableCount : {0u, 1u, 2u, 128u, 129u, 300u}) {
            for (std::size_t const zeroBufferSize : {512u, 1000u, 2048u}) {
                Bytes const actual = written(startSector, [&](yx::CDataOutStream& out) {
                    writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
                        out, tableCount, zeroBuffer(zeroBufferSize));
                });
                EXPECT_TRUE(actual == slotMetadata(startSector, tableCount))
                    << startSector << ' ' << tableCount;
            }
        }
    }
}

TEST(SlotSizeDirectoryCreation, PointsBehindTheMarkersOfTheTables) {
    Bytes const bytes = written(10, [](yx::CDataOutStream& out) {
        writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(out, 2, zeroBuffer(2048));
    });
    // Marker at 10, directory at 11, the first table's place at sector 12.
    Bytes const directory(bytes.begin() + 512, bytes.end());
    EXPECT_EQ(entryAt(directory, 0), 13u);
    EXPECT_EQ(entryAt(directory, 1), 16u);
    EXPECT_EQ(bytes.size(), (2u + 2u * 3u) * 512u);
}

TEST(MetadataCreation, SectorNumbersAreCutTo32Bits) {
    class FarStream : public ScriptedStream {
    public:
        __int64 getPosition() const override {
            return 0x1FFFFFFFE00 + ScriptedStream::getPosition();
        }
    } far;
    yx::CDataOutStream out(&far);
    writeEmptyVMDKGrainDirectoryAndTables(out, 2, zeroBuffer(2048), false);
    // The directory lies at sector 0xFFFFFFFF, the tables at 0x100000000 and 0x100000004.
    EXPECT_EQ(entryAt(far.content(), 0), 0u);
    EXPECT_EQ(entryAt(far.content(), 1), 4u);
}

/// A stream that says, once something is written, that it stands further on than it does.
class LyingStream : public ScriptedStream {
public:
    explicit LyingStream(__int64 writtenBytesBefore) : m_limit(writtenBytesBefore) {}

    __int64 getPosition() const override {
        __int64 const position = ScriptedStream::getPosition();
        return position > m_limit ? position + 1536 : position;
    }

private:
    __int64 m_limit;
};

TEST(MetadataCreation, UnforeseenPositionBehindADirectoryIsAnInternalError) {
    LyingStream stream(0);
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(throwsError(
        "Internal error. Stream position after writing VMDK grain directories "
        "is not the expected on (expected: 1 sectors, actual: 4 sectors)",
        {}, [&] { writeEmptyVMDKGrainDirectoryAndTables(out, 2, zeroBuffer(2048), false); }));
    EXPECT_EQ(stream.content().size(), 512u) << "no table is written";

    // The slot size directory speaks of grain directories too.
    LyingStream slotStream(512);
    yx::CDataOutStream slotOut(&slotStream);
    EXPECT_TRUE(throwsError("Internal error. Stream position after writing VMDK grain directories "
                            "is not the expected on (expected: 2 sectors, actual: 5 sectors)",
                            {}, [&] {
                                writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
                                    slotOut, 2, zeroBuffer(2048));
                            }));
    EXPECT_EQ(slotStream.content().size(), 1024u);
}

TEST(MetadataCreation, StartsOnASectorBoundaryOnly) {
    ScriptedStream stream;
    stream.seek(100);
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(throwsError("Internal error in kelm::getStreamPositionVMDKSectors. Stream position "
                            "should be a multiple of 512 but it is not.",
                            {{"position", "100"}, {"uri", "test:/stream"}}, [&] {
                                writeEmptyVMDKGrainDirectoryAndTables(out, 2, zeroBuffer(2048),
                                                                      false);
                            }));
    EXPECT_EQ(stream.content().size(), 0u);
}

TEST(MetadataCreation, NegativeTableCountIsRefused) {
    ScriptedStream stream;
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(
        throwsInvalidArg("writeEmptyVMDKGrainDirectoryAndTables", "Invalid table count: -1", [&] {
            writeEmptyVMDKGrainDirectoryAndTables(out, -1, zeroBuffer(2048), false);
        }));
    EXPECT_TRUE(throwsInvalidArg("writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers",
                                 "Invalid table count: -5", [&] {
                                     writeEmptyVMDKSlotSizeDirectoryWithMarkerAndTablesWithMarkers(
                                         out, -5, zeroBuffer(2048));
                                 }));
    EXPECT_EQ(stream.content().size(), 0u);
}

TEST(MetadataCreation, FailureOfTheStreamPassesThrough) {
    ScriptedStream stream;
    stream.failOnce(ScriptedStream::Kind::Write);
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(test_support::throwsIOError(
        yx::CIOError::IOFailure, "Scripted failure.", {{"uri", "test:/stream"}},
        [&] { writeEmptyVMDKGrainDirectoryAndTables(out, 2, zeroBuffer(2048), true); }));
}

} // namespace
