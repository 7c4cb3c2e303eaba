#include "kelm/graindata/data_preparer.h"

#include <limits>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/expect_error.h"
#include "tests/support/grain_contents.h"
#include "tests/support/reference_codec.h"

namespace kelm {

namespace data_preparer_test {

namespace {

using test_support::Buffer;
using test_support::Bytes;
using test_support::Record;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::toBytes;

constexpr __int64 kGrainSizeSectors = 128;
constexpr int kGrainSizeBytes = 65536;

Record takeApart(Bytes const& record) {
    return test_support::takeApart(record, kGrainSizeBytes);
}

Bytes prepare(CVMDKDataPreparer& preparer, Bytes const& plain, __int64 grainIndex) {
    Buffer source = toBuffer(plain);
    Buffer aux;
    yx::P<Buffer> const prepared = preparer.prepareGrainData(&source, grainIndex, &aux);
    EXPECT_EQ(toBytes(source), plain);
    return toBytes(*prepared);
}

Bytes unprepare(CVMDKDataPreparer& preparer, Bytes const& record) {
    Buffer source = toBuffer(record);
    Buffer aux;
    yx::P<Buffer> const plain = preparer.unprepareGrainData(&source, &aux);
    EXPECT_EQ(toBytes(source), record);
    return toBytes(*plain);
}

TEST(DataPreparer, RecordIsHeaderDataAndPadding) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 0);
    Bytes expected = test_support::fromHex("8002000000000000" // the sector of the grain
                                           "0E000000"         // size of what follows
                                           "7801"             // zlib's header
                                           "010300FCFF"       // the last block, stored, 3 bytes
                                           "616263"
                                           "024D0127"); // checksum
    expected.resize(512);
    EXPECT_EQ(prepare(preparer, {'a', 'b', 'c'}, 5), expected);
}

TEST(DataPreparer, OtherSoftwareReadsTheRecordsOfEveryLevel) {
    for (int const level : {-1, 0, 1, 6, 9}) {
        CVMDKDataPreparer preparer(kGrainSizeSectors, true, level);
        for (Bytes const& plain :
             {test_support::zeros(kGrainSizeBytes), test_support::textPattern(kGrainSizeBytes, 1),
              test_support::pattern(kGrainSizeBytes, 2), test_support::sparse(kGrainSizeBytes, 3),
              test_support::textPattern(kGrainSizeBytes - 1, 4)}) {
            Bytes const record = prepare(preparer, plain, 0x123456789A);
            Record const parts = takeApart(record);
            EXPECT_EQ(parts.lba, 0x91A2B3C4D00);
            EXPECT_EQ(parts.plain, plain);
            EXPECT_LT(parts.padding.size(), 512U);
            EXPECT_EQ(parts.padding, Bytes(parts.padding.size(), 0));
            EXPECT_EQ(record.size() % 512, 0U);
            EXPECT_LE(record.size(), 129U * 512);
        }
    }
}

TEST(DataPreparer, EveryLevelReadsTheRecordsOfOtherSoftware) {
    Bytes const plain = test_support::textPattern(kGrainSizeBytes, 5);
    for (int const level : {0, 1, 9}) {
        CVMDKDataPreparer preparer(kGrainSizeSectors, true, level);
        for (int const otherLevel : {0, 1, 6, 9}) {
            Bytes const stream = test_support::compressWithZlib(plain, otherLevel);
            EXPECT_EQ(unprepare(preparer, test_support::makeRecord(0, stream)), plain);
        }
    }
}

TEST(DataPreparer, EmptySourceMakesARecordOfOneSector) {
    for (int const level : {0, 1, 9}) {
        CVMDKDataPreparer preparer(kGrainSizeSectors, true, level);
        Bytes const record = prepare(preparer, {}, 1);
        ASSERT_EQ(record.size(), 512U);
        Record const parts = takeApart(record);
        EXPECT_EQ(parts.plain, Bytes());
        EXPECT_GE(parts.compressedSizeBytes, 8U); // zlib's header, one block and the checksum
        EXPECT_EQ(unprepare(preparer, record), Bytes(kGrainSizeBytes, 0));
    }
}

TEST(DataPreparer, RecordThatEndsOnASectorGetsNoPadding) {
    // A stored stream takes 11 bytes more than its content.
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 0);
    struct {
        std::size_t plainSizeBytes;
        std::size_t recordSizeBytes;
        std::size_t paddingSizeBytes;
    } const cases[] = {{488, 512, 1}, {489, 512, 0}, {490, 1024, 511}, {1001, 1024, 0}};
    for (auto const& [plainSizeBytes, recordSizeBytes, paddingSizeBytes] : cases) {
        Bytes const plain = test_support::pattern(plainSizeBytes, 6);
        Bytes const record = prepare(preparer, plain, 0);
        EXPECT_EQ(record.size(), recordSizeBytes);
        Record const parts = takeApart(record);
        EXPECT_EQ(parts.padding, Bytes(paddingSizeBytes, 0));
        EXPECT_EQ(parts.plain, plain);
    }
}

TEST(DataPreparer, PaddingIsZeroAlsoInAUsedBuffer) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 1);
    Buffer aux = toBuffer(Bytes(129 * 512, 0xEE));
    Buffer source = toBuffer(test_support::textPattern(kGrainSizeBytes, 7));
    Record const parts = takeApart(toBytes(*preparer.prepareGrainData(&source, 0, &aux)));
    ASSERT_FALSE(parts.padding.empty());
    EXPECT_EQ(parts.padding, Bytes(parts.padding.size(), 0));
}

TEST(DataPreparer, PatchChangesTheFirstEightBytesAlone) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Bytes const record = prepare(preparer, test_support::textPattern(kGrainSizeBytes, 8), 5);
    Buffer patched = toBuffer(record);
    preparer.patchGrainIndexInPreparedGrainData(patched, 6);
    Bytes const expected = test_support::concat(
        {test_support::fromHex("0003000000000000"), test_support::slice(record, 8, record.size())});
    EXPECT_EQ(takeApart(record).lba, 640U);
    EXPECT_EQ(toBytes(patched), expected);
}

TEST(DataPreparer, WithoutCompressionEverythingStaysAsItIs) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, false, 6);
    Bytes const plain = test_support::textPattern(1000, 9);
    Buffer source = toBuffer(plain);
    Buffer aux = toBuffer(Bytes{1, 2, 3});

    EXPECT_FALSE(preparer.doesAnything());
    EXPECT_EQ(preparer.getWorstCaseGrainSizeSectors(), 128);
    EXPECT_EQ(preparer.prepareGrainData(&source, 7, &aux).get(), &source);
    EXPECT_EQ(preparer.unprepareGrainData(&source, &aux).get(), &source);
    EXPECT_EQ(preparer.unprepareGrainData(&source, nullptr).get(), &source);
    preparer.patchGrainIndexInPreparedGrainData(source, 7);
    EXPECT_EQ(toBytes(source), plain);
    EXPECT_EQ(toBytes(aux), (Bytes{1, 2, 3}));

    Buffer empty;
    preparer.patchGrainIndexInPreparedGrainData(empty, 7);
    EXPECT_EQ(preparer.prepareGrainData(&empty, 7, &aux).get(), &empty);
    EXPECT_EQ(empty.getUsed(), 0);
}

TEST(DataPreparer, WithCompressionTheResultIsTheAuxiliaryBuffer) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Buffer plain = toBuffer(test_support::textPattern(kGrainSizeBytes, 10));
    Buffer record;
    Buffer again;
    EXPECT_TRUE(preparer.doesAnything());
    EXPECT_EQ(preparer.prepareGrainData(&plain, 0, &record).get(), &record);
    EXPECT_EQ(preparer.unprepareGrainData(&record, &again).get(), &again);
    EXPECT_EQ(toBytes(again), toBytes(plain));
}

TEST(DataPreparer, ShortSourceComesBackAtFullSize) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Bytes expected = test_support::textPattern(100, 11);
    Buffer record = toBuffer(prepare(preparer, expected, 0));
    expected.resize(kGrainSizeBytes);
    Buffer aux = toBuffer(Bytes(kGrainSizeBytes, 0xEE));
    EXPECT_EQ(toBytes(*preparer.unprepareGrainData(&record, &aux)), expected);
}

TEST(DataPreparer, HeaderIsNotConsultedWhenARecordIsRead) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Bytes const plain = test_support::textPattern(kGrainSizeBytes, 12);
    Bytes record = prepare(preparer, plain, 3);
    std::fill_n(record.begin(), 12, static_cast<unsigned char>(0xFF));
    EXPECT_EQ(unprepare(preparer, record), plain);
}

TEST(DataPreparer, WorstCaseIsTheBoundWithItsHeaderInSectors) {
    struct {
        __int64 grainSizeSectors;
        __int64 worstCaseSectors;
    } const cases[] = {{1, 2}, {8, 9}, {128, 129}, {2048, 2049}, {3136, 3138}};
    for (auto const& [grainSizeSectors, worstCaseSectors] : cases)
        for (int const level : {0, 1, 9})
            EXPECT_EQ(
                CVMDKDataPreparer(grainSizeSectors, true, level).getWorstCaseGrainSizeSectors(),
                worstCaseSectors);
}

TEST(DataPreparer, BadBuffersAreRefusedInOrderWhetherOrNotThereIsCompression) {
    for (bool const compressed : {false, true}) {
        CVMDKDataPreparer preparer(kGrainSizeSectors, compressed, 6);
        Buffer tooBig(kGrainSizeBytes + 1, -1);
        Buffer aux;
        char const* const function = "CVMDKDataPreparer::prepareGrainData";
        EXPECT_TRUE(throwsInvalidArg(function, "pSourceBuffer must not be NULL", {},
                                     [&] { preparer.prepareGrainData(nullptr, 0, nullptr); }));
        EXPECT_TRUE(throwsInvalidArg(function, "pAuxBuffer must not be NULL", {},
                                     [&] { preparer.prepareGrainData(&tooBig, 0, nullptr); }));
        EXPECT_TRUE(throwsInvalidArg(function, "source buffer is bigger than grain size (65536).",
                                     {}, [&] { preparer.prepareGrainData(&tooBig, 0, &aux); }));
        EXPECT_EQ(aux.getAllocated(), 0);
    }
}

TEST(DataPreparer, BuffersThatACompressionCannotUseAreRefused) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    Buffer buffer = toBuffer(Bytes(100, 1));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::prepareGrainData",
                                 "source and auxiliary buffer must not be the same", {},
                                 [&] { preparer.prepareGrainData(&buffer, 0, &buffer); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::unprepareGrainDataTo",
                                 "pSourceBuffer must not be NULL", {},
                                 [&] { preparer.unprepareGrainDataTo(nullptr, nullptr); }));
    CVMDKDataPreparer plainPreparer(kGrainSizeSectors, false, 6);
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::unprepareGrainDataTo",
                                 "grains are not compressed", {},
                                 [&] { plainPreparer.unprepareGrainDataTo(&buffer, nullptr); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::unprepareGrainData",
                                 "source and auxiliary buffer must not be the same", {},
                                 [&] { preparer.unprepareGrainData(&buffer, &buffer); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::unprepareGrainData",
                                 "pSourceBuffer must not be NULL", {},
                                 [&] { preparer.unprepareGrainData(nullptr, &buffer); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer::unprepareGrainData",
                                 "pAuxBuffer must not be NULL", {},
                                 [&] { preparer.unprepareGrainData(&buffer, nullptr); }));
    EXPECT_EQ(toBytes(buffer), Bytes(100, 1));
}

TEST(DataPreparer, RecordTooShortForItsHeaderIsCorruptData) {
    CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
    for (int const sizeBytes : {0, 1, 11}) {
        Buffer record = sizeBytes > 0 ? Buffer(sizeBytes, -1) : Buffer();
        Buffer aux;
        std::string const message =
            "Prepared VMDK grain data is too short: " + std::to_string(sizeBytes) + " bytes";
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, message, {},
                                  [&] { preparer.unprepareGrainData(&record, &aux); }));
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, message, {},
                                  [&] { preparer.patchGrainIndexInPreparedGrainData(record, 1); }));
    }
    Buffer headerAlone(12, -1);
    Buffer aux;
    EXPECT_TRUE(
        test_support::reportsCorruptData([&] { preparer.unprepareGrainData(&headerAlone, &aux); }));
}

TEST(DataPreparer, NoDamageAndNoCutGivesWrongBytes) {
    constexpr int kSmallGrainSizeBytes = 4096;
    Bytes const plain = test_support::textPattern(kSmallGrainSizeBytes, 13);
    for (int const level : {0, 1, 9}) {
        CVMDKDataPreparer preparer(8, true, level);
        Bytes const record = prepare(preparer, plain, 0);
        std::size_t const endBytes = 12 + takeApart(record).compressedSizeBytes;
        int refusedCount = 0;
        for (std::size_t i = 12; i < endBytes; ++i) {
            SCOPED_TRACE(testing::Message() << "level " << level << ", byte " << i);
            Bytes damaged = record;
            damaged[i] ^= 0x10;
            try {
                // A few bits between blocks mean nothing.
                EXPECT_EQ(unprepare(preparer, damaged), plain);
            } catch (yx::CIOError const& error) {
                EXPECT_EQ(error.getIOCode(), yx::CIOError::CorruptData);
                ++refusedCount;
            }
            Bytes const cut = test_support::slice(record, 0, i);
            EXPECT_TRUE(test_support::reportsCorruptData([&] { unprepare(preparer, cut); }));
        }
        EXPECT_GE(refusedCount, static_cast<int>(endBytes) - 12 - 2);
    }
}

TEST(DataPreparer, RecordOfMoreThanAGrainIsCorruptData) {
    Bytes const stream = test_support::compressWithZlib(Bytes(4097, 7), 6);
    Bytes const record = test_support::makeRecord(0, stream);
    for (int const level : {0, 1}) {
        CVMDKDataPreparer preparer(8, true, level);
        Buffer source = toBuffer(record);
        Buffer aux;
        EXPECT_TRUE(
            test_support::reportsCorruptData([&] { preparer.unprepareGrainData(&source, &aux); }));
        EXPECT_EQ(toBytes(source), record);
    }
}

TEST(DataPreparer, GrainSizesThatNoBufferCanHoldAreRefused) {
    struct {
        __int64 grainSizeSectors;
        char const* message;
    } const cases[] = {
        {0, "Invalid grain size: 0 sectors"},
        {-1, "Invalid grain size: -1 sectors"},
        {2097151, "Invalid grain size: 2097151 sectors"},
        {0x800000, "Invalid grain size: 8388608 sectors"},
        {std::numeric_limits<__int64>::max(), "Invalid grain size: 9223372036854775807 sectors"},
        {std::numeric_limits<__int64>::min(), "Invalid grain size: -9223372036854775808 sectors"},
    };
    for (bool const compressed : {false, true}) {
        for (auto const& test : cases)
            EXPECT_TRUE(throwsInvalidArg("CVMDKDataPreparer constructor", test.message, {}, [&] {
                CVMDKDataPreparer(test.grainSizeSectors, compressed, 1);
            }));
    }
    EXPECT_EQ(CVMDKDataPreparer(2097150, false, 1).getWorstCaseGrainSizeSectors(), 2097150);
    EXPECT_GE(CVMDKDataPreparer(2097150, true, 1).getWorstCaseGrainSizeSectors(), 2097150);
}

TEST(DataPreparer, SeveralThreadsPrepareWithOneObjectEach) {
    Bytes const plain = test_support::textPattern(kGrainSizeBytes, 14);
    CVMDKDataPreparer alone(kGrainSizeSectors, true, 6);
    Bytes const expected = prepare(alone, plain, 9);
    std::vector<int> wrong(4, 0);
    std::vector<std::thread> threads;
    for (int& count : wrong)
        threads.emplace_back([&count, &plain, &expected] {
            CVMDKDataPreparer preparer(kGrainSizeSectors, true, 6);
            Buffer source = toBuffer(plain);
            Buffer record;
            Buffer again;
            for (int i = 0; i < 20; ++i) {
                preparer.prepareGrainData(&source, 9, &record);
                preparer.unprepareGrainData(&record, &again);
                if (toBytes(record) != expected || toBytes(again) != plain)
                    ++count;
            }
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, std::vector<int>(4, 0));
}

} // namespace

} // namespace data_preparer_test

} // namespace kelm
