#include "kelm/graindata/grain.h"
#include "tests/graindata/grain_fixture.h"
#include "tests/support/fake_cipher.h"

namespace graindata_test {

namespace grain_writing_test {

namespace {

using kelm::CVMDKGrain;
using test_support::FakeCipher;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

class GrainWriting : public GrainTest {
protected:
    /// Sectors of a grain of zeros, of random bytes that compress to nothing, and the largest slot.
    struct SlotSizes {
        Kind kind;
        int zeroSectors;
        int randomSectors;
        int worstCaseSectors;
    };

    static constexpr SlotSizes kSlotSizes[] = {{kCompressed, 1, 9, 9},
                                               {kCompressedAndEnciphered, 2, 10, 10}};
};

TEST_F(GrainWriting, ChangesMemoryOnlyUntilItIsFlushed) {
    for (Kind const kind : kAllKinds) {
        Bytes plain = textPattern(kGrainSizeBytes, 1);
        putGrain(kind, plain);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        grain->seek(4000);
        write(*grain, {1, 2, 3});
        EXPECT_EQ(grain->getPosition(), 4003);
        EXPECT_EQ(writes(), Operations());
        EXPECT_EQ(plainInFile(kind), plain);

        std::copy_n(Bytes{1, 2, 3}.begin(), 3, plain.begin() + 4000);
        EXPECT_EQ(readAll(*grain), plain);
        grain->flushChangesToStream();
        EXPECT_EQ(writes().size(), 1U);
        EXPECT_EQ(plainInFile(kind), plain);
        EXPECT_TRUE(grain->isOpen());

        grain->flushChangesToStream();
        EXPECT_EQ(writes().size(), 1U);
    }
}

TEST_F(GrainWriting, OpeningAnotherGrainAndClosingFlush) {
    for (Kind const kind : kAllKinds) {
        FakeGrainAllocator::Slot const none;
        allocator->setSlot(0, none);
        allocator->setSlot(1, none);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 0);
        write(*grain, pattern(kGrainSizeBytes, 2));
        openGrain(*grain, 1);
        EXPECT_EQ(plainInFile(kind, 0), pattern(kGrainSizeBytes, 2));
        EXPECT_EQ(readAll(*grain), zeros(kGrainSizeBytes));
        grain->seek(0);
        write(*grain, pattern(kGrainSizeBytes, 3));
        grain->close();
        EXPECT_EQ(plainInFile(kind, 1), pattern(kGrainSizeBytes, 3));
    }
}

TEST_F(GrainWriting, WholeGrainIsWrittenWithoutLoadingTheOldOne) {
    provider = yx::makeObject<FakeDataProvider>();
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 4));
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, pattern(kGrainSizeBytes, 5));
        openGrain(*grain, 7);
        write(*grain, pattern(kGrainSizeBytes, 6));
        grain->close();
        EXPECT_EQ(reads(), Operations());
        EXPECT_EQ(provider->requests(), Requests());
        EXPECT_EQ(plainInFile(kind), pattern(kGrainSizeBytes, 5));
        EXPECT_EQ(plainInFile(kind, 7), pattern(kGrainSizeBytes, 6));
        allocator->setSlot(7, {});
    }
}

TEST_F(GrainWriting, PartOfAnAbsentGrainBringsTheRestFromTheProviderOrZeros) {
    for (Kind const kind : kAllKinds) {
        for (bool const hasProvider : {false, true}) {
            provider = hasProvider ? yx::makeObject<FakeDataProvider>() : nullptr;
            allocator->setSlot(3, {});
            yx::P<CVMDKGrain> const grain = makeGrain(kind);
            openGrain(*grain, 3);
            grain->seek(100);
            write(*grain, {1, 2, 3});
            Bytes expected =
                hasProvider ? FakeDataProvider::bytesAt(13 * 4096, 4096) : zeros(kGrainSizeBytes);
            std::copy_n(Bytes{1, 2, 3}.begin(), 3, expected.begin() + 100);
            EXPECT_EQ(readAll(*grain), expected);
            grain->close();
            EXPECT_EQ(plainInFile(kind, 3), expected);
            if (hasProvider) {
                EXPECT_EQ(provider->requests(),
                          (Requests{{Request::Data, 13 * 4096, 4096, false}}));
            }
        }
    }
}

TEST_F(GrainWriting, NothingHappensForNoBytes) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain, kReadOnly);
    grain->write(nullptr, 0);
    openGrain(*grain);
    grain->write(nullptr, 0);
    EXPECT_FALSE(grain->isGrainWritten());
}

TEST_F(GrainWriting, ChecksComeInOrderSizeThenRangeThenAccess) {
    for (yx::IIOStream::Access const access :
         {kReadOnly, static_cast<yx::IIOStream::Access>(2), kReadWrite}) {
        yx::P<CVMDKGrain> const grain = makeGrain(kPlain, access);
        openGrain(*grain);
        grain->seek(1);
        Bytes const source(kGrainSizeBytes, 1);
        EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::read", "Invalid number of bytes to read: -2",
                                     {{"uri", "test:/stream"}},
                                     [&] { grain->write(source.data(), -2); }));
        EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                  "Cannot write 4096 bytes to grain. Grain size exceeded.",
                                  {{"uri", "test:/stream"}}, [&] { write(*grain, source); }));
        if (access != kReadWrite) {
            EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::write was called, but the grain "
                                    "was not opened for writing.",
                                    {}, [&] { write(*grain, {1}); }));
        }
        EXPECT_EQ(grain->getPosition(), 1);
        EXPECT_FALSE(grain->isGrainWritten());
    }
}

TEST_F(GrainWriting, ClosedGrainIsNotWrittenTo) {
    for (Kind const kind : kAllKinds) {
        provider = yx::makeObject<FakeDataProvider>();
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        EXPECT_TRUE(
            throwsError("Internal error: CVMDKGrain::write was called, but the grain is not open.",
                        {}, [&] { write(*grain, {1}); }));
        EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::writePreparedGrainData was called, "
                                "but the grain is not open.",
                                {},
                                [&] { grain->writePreparedGrainData(toBuffer(Bytes(20, 1))); }));
        EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::makeIndependentOfParent was called, "
                                "but the grain is not open.",
                                {}, [&] { grain->makeIndependentOfParent(); }));
        EXPECT_EQ(stream->operations(), Operations());
        EXPECT_EQ(allocator->allocations(), Allocations());
    }
}

TEST_F(GrainWriting, ZerosInAnAbsentGrainAreNotStored) {
    for (Kind const kind : kAllKinds)
        for (bool const hasProvider : {false, true}) {
            provider = hasProvider ? yx::makeObject<FakeDataProvider>() : nullptr;
            yx::P<CVMDKGrain> const grain = makeGrain(kind);
            openGrain(*grain);
            write(*grain, zeros(kGrainSizeBytes));
            EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
            grain->flushChangesToStream();
            EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());
            EXPECT_EQ(grain->getGrainStartPositionSectors(), 0);
            EXPECT_EQ(allocator->allocations(), Allocations());
            EXPECT_EQ(stream->operations(), Operations());
            EXPECT_EQ(readAll(*grain), zeros(kGrainSizeBytes)) << "still in memory";

            openGrain(*grain);
            EXPECT_EQ(readAll(*grain), hasProvider ? FakeDataProvider::bytesAt(40960, 4096)
                                                   : zeros(kGrainSizeBytes));
        }
}

TEST_F(GrainWriting, OneByteAnywhereMakesAnAbsentGrainWorthStoring) {
    for (unsigned int const i : {0U, 1U, 15U, 16U, 17U, 2047U, 4092U, 4095U}) {
        allocator->setSlot(0, {});
        yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
        openGrain(*grain);
        Bytes plain = zeros(kGrainSizeBytes);
        plain[i] = 1;
        write(*grain, plain);
        grain->close();
        EXPECT_EQ(plainInFile(kCompressed), plain) << i;
    }
}

TEST_F(GrainWriting, ZerosOverAStoredGrainAreStored) {
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 7));
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, zeros(kGrainSizeBytes));
        grain->flushChangesToStream();
        EXPECT_EQ(plainInFile(kind), zeros(kGrainSizeBytes));
        EXPECT_EQ(allocator->allocations(), Allocations());
    }
}

TEST_F(GrainWriting, NewUncompressedGrainGetsASlotOfOneGrain) {
    for (Kind const kind : {kPlain, kEnciphered}) {
        allocator->allocations().clear();
        allocator->setSlot(5, {});
        __int64 const expectedPos = allocator->getNextPosSectors();
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 5);
        write(*grain, {1});
        grain->flushChangesToStream();
        EXPECT_EQ(allocator->allocations(), (Allocations{{5, 4096, 8, false}}));
        EXPECT_EQ(grain->getGrainStartPositionSectors(), expectedPos);
        grain->seek(9);
        write(*grain, {2});
        grain->flushChangesToStream();
        EXPECT_EQ(allocator->allocations().size(), 1U);
        EXPECT_EQ(writes().back(), writeOf(expectedPos * 512, 4096));
        EXPECT_EQ(plainInFile(kind, 5), concat({{1}, zeros(8), {2}, zeros(kGrainSizeBytes - 10)}));
    }
}

TEST_F(GrainWriting, NewCompressedGrainGetsJustTheSectorsItNeeds) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        allocator->allocations().clear();
        allocator->setSlot(5, {});
        allocator->setSlot(6, {});
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 5);
        write(*grain, {1});
        openGrain(*grain, 6);
        write(*grain, pattern(kGrainSizeBytes, 8));
        grain->close();
        int const cipherBytes = kind.enciphered ? 12 : 0;
        int const zeroBytes = 512 + cipherBytes;
        int const randomBytes = 9 * 512 + cipherBytes;
        EXPECT_EQ(allocator->allocations(), (Allocations{{5, zeroBytes, zeroSectors, false},
                                                         {6, randomBytes, randomSectors, false}}));
        EXPECT_EQ(plainInFile(kind, 5), concat({{1}, zeros(kGrainSizeBytes - 1)}));
        EXPECT_EQ(plainInFile(kind, 6), pattern(kGrainSizeBytes, 8));
    }
}

TEST_F(GrainWriting, CompressedGrainThatShrinksKeepsItsSlotAndTheOldTail) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        Bytes const plain = pattern(kGrainSizeBytes, 9);
        putGrain(kind, plain);
        auto const slot = allocator->slotOf(0);
        auto const slotBytes = static_cast<std::size_t>(slot.sizeSectors) * 512;
        auto const position = static_cast<std::size_t>(slot.posSectors) * 512;
        Bytes const before = slice(stream->content(), position, slotBytes);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        Bytes const shrunk = concat({{1}, zeros(kGrainSizeBytes - 1)});
        write(*grain, shrunk);
        grain->flushChangesToStream();
        std::size_t const newBytes = kind.enciphered ? 524 : 512;
        EXPECT_EQ(writes(), (Operations{writeOf(static_cast<long long>(position),
                                                static_cast<long long>(newBytes))}));
        EXPECT_EQ(grain->getGrainStartPositionSectors(), slot.posSectors);
        EXPECT_EQ(plainInFile(kind), shrunk);
        EXPECT_EQ(slice(stream->content(), position + newBytes, slotBytes - newBytes),
                  slice(before, newBytes, slotBytes - newBytes));

        // The slot is still as large as it was.
        grain->seek(0);
        write(*grain, plain);
        grain->flushChangesToStream();
        EXPECT_EQ(plainInFile(kind), plain);
        EXPECT_EQ(allocator->allocations(), Allocations());
    }
}

TEST_F(GrainWriting, CompressedGrainThatOutgrowsItsSlotMovesOnceToTheLargest) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        Bytes const plain = pattern(kGrainSizeBytes, 10);
        putGrain(kind, zeros(kGrainSizeBytes), 0, randomSectors - zeroSectors - 1);
        auto const oldSlot = allocator->slotOf(0);
        ASSERT_EQ(oldSlot.sizeSectors, randomSectors - 1) << "one sector too small";
        Bytes const before = stream->content();
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, plain);
        grain->flushChangesToStream();
        ASSERT_EQ(allocator->allocations().size(), 1U);
        EXPECT_EQ(allocator->allocations()[0].slotSizeSectors, worstCaseSectors);
        EXPECT_EQ(grain->getGrainStartPositionSectors(), oldSlot.posSectors + oldSlot.sizeSectors);
        EXPECT_EQ(plainInFile(kind), plain);
        EXPECT_EQ(slice(stream->content(), 0, before.size()), before) << "the old slot stays";

        __int64 const position = grain->getGrainStartPositionSectors();
        for (Bytes const& next : {zeros(kGrainSizeBytes), pattern(kGrainSizeBytes, 11)}) {
            grain->seek(0);
            write(*grain, next);
            grain->flushChangesToStream();
            EXPECT_EQ(plainInFile(kind), next);
        }
        EXPECT_EQ(grain->getGrainStartPositionSectors(), position);
        EXPECT_EQ(allocator->allocations().size(), 1U);
    }
}

TEST_F(GrainWriting, LargestSlotIsTheWorstCaseHoweverLittleTheGrainHasGrown) {
    Bytes const plain = concat({pattern(1000, 25), zeros(kGrainSizeBytes - 1000)});
    struct {
        Kind kind;
        int cipherBlockSizeBytes;
        int worstCaseSectors;
    } const cases[] = {
        {kCompressed, 16, 9},
        {kCompressedAndEnciphered, 16, 10},
        {kCompressedAndEnciphered, 12, 9}, // blocks that leave 9 sectors without the header whole
        {kCompressedAndEnciphered, 512, 10},
    };
    for (auto const& [kind, cipherBlockSizeBytes, worstCaseSectors] : cases) {
        cipher = yx::makeObject<FakeCipher>(cipherBlockSizeBytes);
        auto const grain = yx::makeObject<CVMDKGrain>(
            stream.get(), kReadWrite, kGrainSizeSectors, allocator.get(), kind.compressed, 6,
            nullptr, kind.enciphered ? cipher.get() : nullptr, cryptKey(), toBuffer(Bytes(512, 1)));
        allocator->allocations().clear();
        grain->open(0, 0, 1, 1);
        write(*grain, plain);
        grain->flushChangesToStream();
        ASSERT_EQ(allocator->allocations().size(), 1U);
        EXPECT_LE(allocator->allocations()[0].sizeBytes, 4 * 512);
        EXPECT_EQ(allocator->allocations()[0].slotSizeSectors, worstCaseSectors);
        grain->open(0, 0, allocator->slotOf(0).posSectors, worstCaseSectors);
        EXPECT_EQ(readAll(*grain), plain);
    }
}

TEST_F(GrainWriting, DataThatJustFillTheSlotStay) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        putGrain(kind, zeros(kGrainSizeBytes), 0, randomSectors - zeroSectors);
        auto const slot = allocator->slotOf(0);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, pattern(kGrainSizeBytes, 12));
        grain->flushChangesToStream();
        EXPECT_EQ(grain->getGrainStartPositionSectors(), slot.posSectors);
        EXPECT_EQ(plainInFile(kind), pattern(kGrainSizeBytes, 12));
    }
}

TEST_F(GrainWriting, StoredRecordNamesItsGrainAndKeepsItsHeaderPlain) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        grain->open(3, 0x123456789A, 0, 0);
        write(*grain, textPattern(kGrainSizeBytes, 13));
        grain->close();
        auto const slot = allocator->slotOf(3);
        Bytes const header =
            slice(stream->content(), static_cast<std::size_t>(slot.posSectors) * 512, 12);
        EXPECT_EQ(slice(header, 0, 8), test_support::fromHex("D0C4B3A291000000"));
        EXPECT_LT(header[9], 16) << "a compressed size below 4096";
        allocator->setSlot(3, {});
    }
}

TEST_F(GrainWriting, EveryLevelIsReadByOtherSoftwareAndByTheGrain) {
    for (int const level : {-1, 0, 1, 6, 9})
        for (Kind const kind : kAllKinds)
            for (Bytes const& plain : {textPattern(kGrainSizeBytes, 14),
                                       pattern(kGrainSizeBytes, 15), sparse(kGrainSizeBytes, 16)}) {
                allocator->setSlot(0, {});
                yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadWrite, level);
                openGrain(*grain);
                write(*grain, plain);
                grain->close();
                EXPECT_TRUE(sameBytes(plain, plainInFile(kind))) << kind << ", level " << level;
                openGrain(*grain);
                EXPECT_TRUE(sameBytes(plain, readAll(*grain))) << kind << ", level " << level;
            }
}

TEST_F(GrainWriting, EncipheringIsBoundToThePlaceOnTheDisk) {
    for (Kind const kind : {kEnciphered, kCompressedAndEnciphered}) {
        Bytes stored[2];
        for (int const index : {0, 1}) {
            allocator->setSlot(index, {});
            yx::P<CVMDKGrain> const grain = makeGrain(kind);
            openGrain(*grain, index);
            write(*grain, textPattern(kGrainSizeBytes, 17));
            grain->close();
            auto const slot = allocator->slotOf(index);
            stored[index] =
                slice(stream->content(), static_cast<std::size_t>(slot.posSectors) * 512 + 12, 500);
        }
        EXPECT_NE(stored[0], stored[1]);
    }
}

TEST_F(GrainWriting, InitializationVectorIsTheIndexOverTheBase) {
    struct {
        char const* base;
        __int64 grainIndex;
        char const* expected;
    } const cases[] = {
        {"00112233445566778899AABBCCDDEEFF", 0, "00112233445566778899AABBCCDDEEFF"},
        {"00112233445566778899AABBCCDDEEFF", 0x0102030405060708,
         "0816243640566476809EACBEC8DEECFE"},
        {"00000000000000000000000000000000", -1, "FFFFFFFFFFFFFFFFFFFFFFFFFFFFFFFF"},
        {"AABBCC", 0x112233, "9999DD"},
        {"000000000000000000", 5, "050000000000000005"},
        {"", 7, ""},
    };
    Buffer result = toBuffer(Bytes(40, 0xEE));
    for (auto const& [base, grainIndex, expected] : cases) {
        CVMDKGrain::makeGrainEncryptIV(result, toBuffer(test_support::fromHex(base)), grainIndex);
        EXPECT_EQ(toBytes(result), test_support::fromHex(expected));
    }
}

class PreparedGrainWriting : public GrainWriting {};

TEST_F(PreparedGrainWriting, StoresTheDataAsTheyAreAndMovesToTheEnd) {
    for (Kind const kind : kAllKinds)
        for (bool const keepBuffer : {false, true}) {
            Bytes const plain = textPattern(kGrainSizeBytes, 18);
            Buffer const prepared = toBuffer(preparedForm(kind, plain, 13));
            allocator->setSlot(3, {});
            allocator->allocations().clear();
            int const keepCount = stream->getKeepCount();
            yx::P<CVMDKGrain> const grain = makeGrain(kind);
            openGrain(*grain, 3);
            for (int attempt = 0; attempt < 2; ++attempt) {
                grain->seek(0);
                if (keepBuffer)
                    grain->writePreparedGrainDataKeepBuffer({&prepared, 0, prepared.getUsed()});
                else
                    grain->writePreparedGrainData(prepared);
                EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
                EXPECT_EQ(plainInFile(kind, 3), plain);
            }
            // What is enciphered lies in a buffer that the next grain reuses.
            bool const kept = keepBuffer && !kind.enciphered;
            ASSERT_EQ(allocator->allocations().size(), 1U);
            EXPECT_EQ(allocator->allocations()[0].keepBuffer, kept);
            EXPECT_EQ(stream->getKeepCount() - keepCount, kept ? 2 : 0);
            if (!kind.enciphered) {
                EXPECT_EQ(stream->getLastMemory(), prepared.getData()) << "no copy on the way";
            }
            grain->seek(0);
            EXPECT_EQ(readAll(*grain), plain);
        }
}

TEST_F(PreparedGrainWriting, DropsChangesInMemory) {
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 19));
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        grain->seek(100);
        write(*grain, {1, 2, 3});
        grain->seek(0);
        stream->operations().clear();
        grain->writePreparedGrainData(
            toBuffer(preparedForm(kind, textPattern(kGrainSizeBytes, 20), 10)));
        EXPECT_EQ(writes().size(), 1U) << "no flush of the changes";
        EXPECT_EQ(readAll(*grain), textPattern(kGrainSizeBytes, 20));
        grain->close();
        EXPECT_EQ(plainInFile(kind), textPattern(kGrainSizeBytes, 20));
    }
}

TEST_F(PreparedGrainWriting, StoresZerosToo) {
    for (Kind const kind : kAllKinds) {
        allocator->setSlot(0, {});
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        grain->writePreparedGrainData(toBuffer(preparedForm(kind, zeros(kGrainSizeBytes), 10)));
        EXPECT_GT(grain->getGrainStartPositionSectors(), 0);
        EXPECT_EQ(plainInFile(kind), zeros(kGrainSizeBytes));
    }
}

TEST_F(PreparedGrainWriting, ChecksComeInOrderAccessThenPositionThenSize) {
    Props const props = {{"uri", "test:/stream"},
                         {"posInGrain", "1"},
                         {"diskGrainIndex", "13"},
                         {"extentGrainIndex", "3"},
                         {"preparedDataSize", "0"}};
    Buffer const empty;
    yx::P<CVMDKGrain> const readOnly = makeGrain(kCompressed, kReadOnly);
    openGrain(*readOnly, 3);
    readOnly->seek(1);
    EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::writePreparedGrainData was called, but "
                            "the grain was not opened for writing.",
                            {}, [&] { readOnly->writePreparedGrainData(empty); }));

    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    openGrain(*grain, 3);
    write(*grain, {1});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "CVMDKGrain::writePreparedGrainData can only be called when the "
                              "position in the grain is 0.",
                              props, [&] { grain->writePreparedGrainData(empty); }));
    grain->seek(0);
    Props atStart = props;
    atStart[1].second = "0";
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::NotAllowed,
                      "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.",
                      atStart, [&] { grain->writePreparedGrainData(empty); }));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAllowed,
        "CVMDKGrain::writePreparedGrainData called with zero-length prepared data.", atStart, [&] {
            grain->writePreparedGrainDataKeepBuffer({&empty, 0, 0});
        }));
    EXPECT_EQ(readAll(*grain), concat({{1}, zeros(kGrainSizeBytes - 1)})) << "changes stay";
}

TEST_F(PreparedGrainWriting, ShortUncompressedDataAreStoredAsGivenUnlessEnciphered) {
    putGrain(kPlain, Bytes(kGrainSizeBytes, 7));
    yx::P<CVMDKGrain> const plain = makeGrain(kPlain);
    openGrain(*plain);
    plain->writePreparedGrainData(toBuffer(Bytes(100, 1)));
    EXPECT_EQ(plainInFile(kPlain), concat({Bytes(100, 1), Bytes(kGrainSizeBytes - 100, 7)}));

    putGrain(kEnciphered, Bytes(kGrainSizeBytes, 7));
    yx::P<CVMDKGrain> const enciphered = makeGrain(kEnciphered);
    openGrain(*enciphered);
    enciphered->writePreparedGrainData(toBuffer(Bytes(100, 1)));
    EXPECT_EQ(plainInFile(kEnciphered), concat({Bytes(100, 1), zeros(kGrainSizeBytes - 100)}));

    // The padding is not left over from the grain before.
    enciphered->seek(0);
    enciphered->writePreparedGrainData(toBuffer(Bytes(50, 2)));
    EXPECT_EQ(plainInFile(kEnciphered), concat({Bytes(50, 2), zeros(kGrainSizeBytes - 50)}));
}

TEST_F(PreparedGrainWriting, DataThatWouldReachTheNextGrainAreRefused) {
    putGrain(kPlain, Bytes(kGrainSizeBytes, 7));
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    EXPECT_TRUE(throwsInvalidArg(
        "CVMDKGrain::writePreparedGrainData",
        "Prepared data does not fit the slot of the grain (slot size: 8 sectors, prepared data "
        "size: 4097 bytes)",
        {{"uri", "test:/stream"},
         {"posInGrain", "0"},
         {"diskGrainIndex", "10"},
         {"extentGrainIndex", "0"}},
        [&] { grain->writePreparedGrainData(toBuffer(Bytes(4097, 1))); }));
    EXPECT_EQ(writes(), Operations());
    EXPECT_EQ(grain->getPosition(), 0);
    EXPECT_EQ(readAll(*grain), Bytes(kGrainSizeBytes, 7));
}

TEST_F(PreparedGrainWriting, EncipheredDataOfAnotherSizeThanTheGrainAreAnInternalError) {
    char const* const message =
        "Internal error. Encrypted data in "
        "CVMDKGrain::writePreparedGrainDataInternal has an unexpected size.";
    yx::P<CVMDKGrain> const grain = makeGrain(kEnciphered);
    openGrain(*grain);
    EXPECT_TRUE(throwsError(message, {{"originalSize", "4097"}, {"encryptedSize", "4112"}},
                            [&] { grain->writePreparedGrainData(toBuffer(Bytes(4097, 1))); }));

    cipher = yx::makeObject<FakeCipher>(24);
    auto const odd = yx::makeObject<CVMDKGrain>(stream.get(), kReadWrite, kGrainSizeSectors,
                                                allocator.get(), false, 1, nullptr, cipher.get(),
                                                cryptKey(), toBuffer(Bytes(24, 1)));
    odd->open(0, 0, 0, 0);
    EXPECT_TRUE(throwsError(message, {{"originalSize", "100"}, {"encryptedSize", "4104"}},
                            [&] { odd->writePreparedGrainData(toBuffer(Bytes(100, 1))); }));
    EXPECT_EQ(writes(), Operations());
    EXPECT_EQ(allocator->allocations(), Allocations());
}

TEST_F(PreparedGrainWriting, RecordTooShortForItsHeaderIsNotEnciphered) {
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressedAndEnciphered);
    openGrain(*grain);
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Prepared VMDK grain data is too short: 11 bytes",
                              {{"uri", "test:/stream"},
                               {"posInGrain", "0"},
                               {"diskGrainIndex", "10"},
                               {"extentGrainIndex", "0"},
                               {"preparedDataSize", "11"}},
                              [&] { grain->writePreparedGrainData(toBuffer(Bytes(11, 1))); }));
    EXPECT_EQ(allocator->allocations(), Allocations());
    grain->writePreparedGrainData(toBuffer(Bytes(12, 1)));
    EXPECT_EQ(allocator->allocations(), (Allocations{{0, 12, 1, false}}));
}

TEST_F(PreparedGrainWriting, CompressedDataMoveByTheSameRuleAsWrites) {
    for (auto const& [kind, zeroSectors, randomSectors, worstCaseSectors] : kSlotSizes) {
        putGrain(kind, zeros(kGrainSizeBytes), 0);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        __int64 const oldPos = grain->getGrainStartPositionSectors();
        Bytes const plain = pattern(kGrainSizeBytes, 21);
        grain->writePreparedGrainData(toBuffer(preparedForm(kind, plain, 10)));
        ASSERT_EQ(allocator->allocations().size(), 1U);
        EXPECT_EQ(allocator->allocations()[0].slotSizeSectors, worstCaseSectors);
        EXPECT_GT(grain->getGrainStartPositionSectors(), oldPos);
        EXPECT_EQ(plainInFile(kind), plain);
    }
}

class GrainIndependence : public GrainWriting {};

TEST_F(GrainIndependence, AbsentGrainIsStoredAsTheProviderHasIt) {
    for (Kind const kind : kAllKinds) {
        provider = yx::makeObject<FakeDataProvider>();
        Bytes const plain = textPattern(kGrainSizeBytes, 22);
        Bytes const prepared = preparedForm(kind, plain, 13);
        provider->setPreparedGrain(prepared);
        allocator->setSlot(3, {});
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 3);
        EXPECT_EQ(grain->makeIndependentOfParent(), static_cast<__int64>(prepared.size()));
        EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
        EXPECT_EQ(provider->requests(),
                  (Requests{{Request::PreparedGrain, 13 * 4096, 4096, kind.compressed}}));
        EXPECT_EQ(plainInFile(kind, 3), plain);
        EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
    }
}

TEST_F(GrainIndependence, GrainWithAPositionIsPassedOver) {
    provider = yx::makeObject<FakeDataProvider>();
    putGrain(kCompressed, pattern(kGrainSizeBytes, 23));
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    openGrain(*grain);
    EXPECT_EQ(grain->makeIndependentOfParent(), 4096);
    EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
    EXPECT_EQ(provider->requests(), Requests());
    EXPECT_EQ(stream->operations(), Operations());
}

TEST_F(GrainIndependence, NothingHappensWithoutAProvider) {
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    openGrain(*grain);
    EXPECT_EQ(grain->makeIndependentOfParent(), 0);
    EXPECT_EQ(grain->getPosition(), 0);
    EXPECT_EQ(allocator->allocations(), Allocations());
    EXPECT_EQ(stream->operations(), Operations());
}

TEST_F(GrainIndependence, UnflushedChangesGiveWayToTheProvider) {
    provider = yx::makeObject<FakeDataProvider>();
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    write(*grain, pattern(kGrainSizeBytes, 24));
    grain->seek(0);
    EXPECT_EQ(grain->makeIndependentOfParent(), 4096);
    EXPECT_EQ(plainInFile(kPlain), FakeDataProvider::bytesAt(10 * 4096, 4096));
}

TEST_F(GrainIndependence, ChecksComeInOrderPositionThenAccess) {
    provider = yx::makeObject<FakeDataProvider>();
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed, kReadOnly);
    openGrain(*grain, 3);
    grain->seek(5);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAllowed,
        "CVMDKGrain::makeIndependentOfParent can only be called when the position in the grain is "
        "0.",
        {{"uri", "test:/stream"},
         {"posInGrain", "5"},
         {"diskGrainIndex", "13"},
         {"extentGrainIndex", "3"}},
        [&] { grain->makeIndependentOfParent(); }));
    grain->seek(0);
    EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::makeIndependentOfParent was called, but "
                            "the grain was not opened for writing.",
                            {}, [&] { grain->makeIndependentOfParent(); }));
    grain->setFallbackDataProvider(nullptr);
    EXPECT_THROW(grain->makeIndependentOfParent(), yx::CError);
}

TEST_F(GrainIndependence, ProviderThatHasNothingIsRefused) {
    provider = yx::makeObject<FakeDataProvider>();
    provider->setPreparedGrain({});
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    openGrain(*grain);
    EXPECT_THROW(grain->makeIndependentOfParent(), yx::CIOError);
    EXPECT_EQ(grain->getPosition(), 0);
    EXPECT_EQ(allocator->allocations(), Allocations());
}

} // namespace

} // namespace grain_writing_test

} // namespace graindata_test
