#include "kelm/graindata/grain.h"
#include "tests/graindata/grain_fixture.h"
#include "tests/support/fake_cipher.h"

namespace graindata_test {

namespace {

using kelm::CVMDKGrain;
using test_support::FakeCipher;

constexpr auto kReadOnly = yx::IIOStream::ReadOnly;
constexpr auto kReadWrite = yx::IIOStream::ReadWrite;

class GrainReading : public GrainTest {
protected:
    /// A zlib stream of `plain`, 4096 bytes, as long as one likes: with blocks of nothing. Its size
    /// is 4107 bytes and a multiple of 5 more.
    static Bytes streamOfSize(Bytes const& plain, std::size_t sizeBytes) {
        Bytes const stored = test_support::compressWithZlib(plain, 0);
        EXPECT_EQ(stored.size(), 4107U);
        Bytes stream = slice(stored, 0, 2);
        while (stream.size() + stored.size() - 2 < sizeBytes)
            stream = concat({stream, test_support::fromHex("00 0000 FFFF")});
        stream = concat({stream, slice(stored, 2, stored.size())});
        EXPECT_EQ(stream.size(), sizeBytes);
        return stream;
    }

    void putRecord(Bytes const& record, __int64 index = 0) {
        Buffer const data = toBuffer(record);
        allocator->allocNewGrain(index, data.getData(), data.getUsed(),
                                 static_cast<int>((record.size() + 511) / 512));
        stream->operations().clear();
    }
};

TEST_F(GrainReading, NothingIsReadForNoBytes) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    grain->read(nullptr, 0);
    openGrain(*grain);
    read(*grain, kGrainSizeBytes);
    grain->read(nullptr, 0);
    EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
}

TEST_F(GrainReading, BadSizesAreRefused) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    grain->seek(10);
    Bytes target(kGrainSizeBytes + 1, 0xEE);
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::read", "Invalid number of bytes to read: -1",
                                 {{"uri", "test:/stream"}},
                                 [&] { grain->read(target.data(), -1); }));
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::UnexpectedEnd,
                      "Unexpected end of data trying to read 4087 bytes from VMDK grain.",
                      {{"uri", "test:/stream"}, {"position", "10"}, {"bytesToRead", "4087"}},
                      [&] { grain->read(target.data(), 4087); }));
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::UnexpectedEnd,
                      "Unexpected end of data trying to read 2147483647 bytes from VMDK grain.",
                      {{"uri", "test:/stream"}, {"position", "10"}, {"bytesToRead", "2147483647"}},
                      [&] { grain->read(target.data(), 2147483647); }));
    EXPECT_EQ(target, Bytes(kGrainSizeBytes + 1, 0xEE));
    EXPECT_EQ(grain->getPosition(), 10);
    grain->read(target.data(), 4086);
    EXPECT_EQ(grain->getBytesLeft(), 0);
}

TEST_F(GrainReading, WholeGrainReadLeavesNoBytesButRoomToSeekBack) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    read(*grain, kGrainSizeBytes);
    EXPECT_EQ(grain->getBytesLeft(), 0);
    EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
    EXPECT_THROW(grain->seek(kGrainSizeBytes), yx::CInvalidArgError);
    grain->seek(0);
    EXPECT_EQ(grain->getBytesLeft(), kGrainSizeBytes);
}

TEST_F(GrainReading, AbsentGrainWithoutProviderReadsAsZeros) {
    for (Kind const kind : kAllKinds) {
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        EXPECT_EQ(read(*grain, 100), zeros(100));
        EXPECT_EQ(read(*grain, 3996), zeros(3996));
        EXPECT_FALSE(grain->isGrainWritten());
        EXPECT_EQ(stream->operations(), Operations());
    }
}

TEST_F(GrainReading, AbsentGrainIsPassedThroughAndLeavesNoCopy) {
    provider = yx::makeObject<FakeDataProvider>();
    for (Kind const kind : kAllKinds) {
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain, 3);
        grain->seek(5);
        EXPECT_EQ(read(*grain, 100), FakeDataProvider::bytesAt(13 * 4096 + 5, 100));
        EXPECT_EQ(read(*grain, 7), FakeDataProvider::bytesAt(13 * 4096 + 105, 7));
        EXPECT_EQ(provider->requests(), (Requests{{Request::Data, 13 * 4096 + 5, 100, false},
                                                  {Request::Data, 13 * 4096 + 105, 7, false}}));
        provider->requests().clear();

        grain->setFallbackDataProvider(nullptr);
        EXPECT_EQ(readAll(*grain), zeros(kGrainSizeBytes));
        EXPECT_EQ(provider->requests(), Requests());
        EXPECT_EQ(stream->operations(), Operations());
    }
}

TEST_F(GrainReading, ProviderIsNotAskedForAGrainWithAPosition) {
    provider = yx::makeObject<FakeDataProvider>();
    for (Kind const kind : kAllKinds) {
        putGrain(kind, textPattern(kGrainSizeBytes, 1));
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain);
        EXPECT_EQ(readAll(*grain), textPattern(kGrainSizeBytes, 1));
        EXPECT_EQ(provider->requests(), Requests());
    }
}

TEST_F(GrainReading, GrainsOfOtherSoftwareAreRead) {
    for (Kind const kind : kAllKinds)
        for (Bytes const& plain : {zeros(kGrainSizeBytes), textPattern(kGrainSizeBytes, 2),
                                   pattern(kGrainSizeBytes, 3), sparse(kGrainSizeBytes, 4)}) {
            putGrain(kind, plain, 5);
            yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
            openGrain(*grain, 5);
            EXPECT_TRUE(sameBytes(plain, readAll(*grain))) << kind;
        }
}

TEST_F(GrainReading, OneReadOfTheFileServesManyOfTheGrain) {
    for (Kind const kind : {kPlain, kEnciphered}) {
        Bytes const plain = pattern(kGrainSizeBytes, 5);
        putGrain(kind, plain);
        long long const position = allocator->slotOf(0).posSectors * 512;
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain);
        grain->seek(1000);
        EXPECT_EQ(read(*grain, 10), slice(plain, 1000, 10));
        EXPECT_EQ(read(*grain, 3086), slice(plain, 1010, 3086));
        grain->seek(0);
        EXPECT_EQ(read(*grain, 1), slice(plain, 0, 1));
        EXPECT_EQ(stream->operations(), (Operations{readOf(position, 4096)}));
    }
}

TEST_F(GrainReading, OneReadOfTheFileServesAllThatIsAskedOfACompressedGrain) {
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        Bytes const plain = textPattern(kGrainSizeBytes, 5);
        putGrain(kind, plain);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        EXPECT_EQ(readAll(*grain), plain);
        std::size_t const operations = stream->operations().size();
        grain->seek(1000);
        EXPECT_EQ(read(*grain, 10), slice(plain, 1000, 10)) << kind;
        EXPECT_EQ(readAll(*grain), plain) << kind;
        grain->seek(0);
        Bytes const prepared = readPrepared(*grain);
        EXPECT_EQ(takeApart(prepared, kGrainSizeBytes).plain, plain) << kind;
        EXPECT_EQ(stream->operations().size(), operations) << kind;
    }
}

TEST_F(GrainReading, PartWrittenAfterAReadOfTheWholeGoesOverWhatWasRead) {
    for (Kind const kind : kAllKinds) {
        Bytes plain = textPattern(kGrainSizeBytes, 6);
        putGrain(kind, plain, 0, 4);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        EXPECT_EQ(readAll(*grain), plain);
        Bytes const part = pattern(100, 7);
        grain->seek(500);
        write(*grain, part);
        std::copy(part.begin(), part.end(), plain.begin() + 500);
        EXPECT_EQ(readAll(*grain), plain) << kind;
        grain->flushChangesToStream();
        EXPECT_TRUE(sameBytes(plain, plainInFile(kind))) << kind;
        EXPECT_EQ(readAll(*grain), plain) << kind;
    }
}

TEST_F(GrainReading, IsInFileAloneAsLongAsTheFileHoldsTheBytesAndMemoryNone) {
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 8));
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        EXPECT_FALSE(grain->isInFileAlone()) << kind;
        openGrain(*grain);
        // What is compressed or enciphered is not in the file as it is.
        EXPECT_EQ(grain->isInFileAlone(), !kind.compressed && !kind.enciphered) << kind;
        readAll(*grain);
        EXPECT_FALSE(grain->isInFileAlone()) << kind;
        openGrain(*grain);
        write(*grain, textPattern(kGrainSizeBytes, 10));
        EXPECT_FALSE(grain->isInFileAlone()) << kind;
        grain->flushChangesToStream();
        openGrain(*grain, 1);
        EXPECT_FALSE(grain->isInFileAlone()) << kind;
    }
}

TEST_F(GrainReading, SkipsToItsEndWithoutReading) {
    for (Kind const kind : kAllKinds) {
        Bytes const plain = pattern(kGrainSizeBytes, 8);
        putGrain(kind, plain);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        grain->skipToEnd();
        EXPECT_EQ(grain->getPosition(), 0) << kind;
        openGrain(*grain);
        EXPECT_EQ(grain->getPosition(), 0) << kind;
        grain->skipToEnd();
        EXPECT_EQ(grain->getPosition(), kGrainSizeBytes) << kind;
        EXPECT_EQ(grain->getBytesLeft(), 0) << kind;
        // A caller that stays after all is served all the same.
        EXPECT_EQ(readAll(*grain), plain) << kind;
    }
}

TEST_F(GrainReading, RecordTakesTwoReadsAtMost) {
    Bytes const big = pattern(kGrainSizeBytes, 6);
    struct {
        Kind kind;
        Bytes plain;
        std::vector<long long> readSizes;
    } const cases[] = {
        {kCompressed, zeros(kGrainSizeBytes), {512}},
        {kCompressed, big, {512, 4096}}, // 12 + 4107 bytes, padded
        {kCompressedAndEnciphered, zeros(kGrainSizeBytes), {512}},
        {kCompressedAndEnciphered, big, {512, 4096}}, // 12 + 4112 bytes, padded
    };
    for (auto const& [kind, plain, readSizes] : cases) {
        putGrain(kind, plain);
        long long position = allocator->slotOf(0).posSectors * 512;
        Operations expected;
        for (long long const sizeBytes : readSizes) {
            expected.push_back(readOf(position, sizeBytes));
            position += sizeBytes;
        }
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain);
        EXPECT_EQ(readAll(*grain), plain);
        EXPECT_EQ(readAll(*grain), plain);
        EXPECT_EQ(stream->operations(), expected) << kind;
    }
}

TEST_F(GrainReading, RecordThatEndsOnASectorIsReadWithoutTheNextOne) {
    // 12 + 500 bytes; the file ends after them.
    Bytes const plain = concat({pattern(489, 7), zeros(3607)});
    Bytes const stream489 = test_support::compressWithZlib(pattern(489, 7), 0);
    ASSERT_EQ(stream489.size(), 500U);
    putRecord(makeRecord(0, stream489));
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed, kReadOnly);
    openGrain(*grain);
    EXPECT_EQ(readAll(*grain), plain);
    EXPECT_EQ(reads(), (Operations{readOf(8192, 512)}));
}

TEST_F(GrainReading, EncipheredRecordCanNeedASectorMoreThanItsPlainSize) {
    // 12 + 500 bytes fill a sector, but 500 bytes are 512 in whole cipher blocks.
    Bytes const plain = concat({pattern(489, 8), zeros(3607)});
    Bytes const record = makeRecord(80, test_support::compressWithZlib(pattern(489, 8), 0));
    putRecord(encipherRecord(record, key, ivOf(10)));
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressedAndEnciphered, kReadOnly);
    openGrain(*grain);
    // Here the file has only the blocks themselves after the header, as a last slot may have.
    stream->content().resize(8192 + 1024);
    EXPECT_EQ(readAll(*grain), plain);
    EXPECT_EQ(reads(), (Operations{readOf(8192, 512), readOf(8704, 512)}));
}

TEST_F(GrainReading, RecordOfTwoGrainsPassesAndOfOneByteMoreIsCorruptData) {
    Bytes const plain = textPattern(kGrainSizeBytes, 9);
    putRecord(makeRecord(0, streamOfSize(plain, 8192)));
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed, kReadOnly);
    openGrain(*grain);
    EXPECT_EQ(readAll(*grain), plain);

    struct {
        char const* header;
        char const* lba;
        char const* compressedGrainSize;
    } const cases[] = {
        {"0500000000000000 01200000", "5", "8193"},
        {"FFFFFFFFFFFFFFFF FFFFFFFF", "18446744073709551615", "4294967295"},
        {"0000000000000080 00000080", "9223372036854775808", "2147483648"},
    };
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered})
        for (auto const& [header, lba, compressedGrainSize] : cases) {
            putRecord(concat({test_support::fromHex(header), zeros(500)}), 1);
            yx::P<CVMDKGrain> const damaged = makeGrain(kind, kReadOnly);
            openGrain(*damaged, 1);
            std::string const position = std::to_string(allocator->slotOf(1).posSectors * 512);
            Props const props = {{"uri", "test:/stream"},
                                 {"position", position},
                                 {"lba", lba},
                                 {"compressedGrainSize", compressedGrainSize}};
            char const* const message =
                "Error reading compressed data from VMDK. Invalid compressed grain size.";
            EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, message, props,
                                      [&] { read(*damaged, 1); }));
            EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, message, props,
                                      [&] { readPrepared(*damaged); }));
            EXPECT_EQ(damaged->getPosition(), 0);
        }
}

TEST_F(GrainReading, GrainIndexInTheRecordIsIgnored) {
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        Bytes const plain = textPattern(kGrainSizeBytes, 10);
        putGrain(kind, plain, 2);
        auto const position = static_cast<std::size_t>(allocator->slotOf(2).posSectors) * 512;
        std::fill_n(stream->content().begin() + static_cast<std::ptrdiff_t>(position), 8,
                    static_cast<unsigned char>(0xFF));
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain, 2);
        EXPECT_EQ(readAll(*grain), plain);
    }
}

TEST_F(GrainReading, WrongKeyShowsAsDamageOnlyInACompressedExtent) {
    for (Kind const kind : {kEnciphered, kCompressedAndEnciphered}) {
        Bytes const plain = textPattern(kGrainSizeBytes, 11);
        putGrain(kind, plain);
        yx::TCryptBuffer<unsigned char> wrongKey = cryptKey();
        wrongKey.getData()[0] ^= 1;
        auto const grain = yx::makeObject<CVMDKGrain>(stream.get(), kReadOnly, kGrainSizeSectors,
                                                      allocator.get(), kind.compressed, 1, nullptr,
                                                      cipher.get(), wrongKey, toBuffer(iv));
        openGrain(*grain);
        if (kind.compressed) {
            EXPECT_TRUE(reportsCorruptData([&] { read(*grain, 1); }));
        } else {
            EXPECT_NE(readAll(*grain), plain);
        }
    }
}

TEST_F(GrainReading, DamagedRecordLeavesNothingLoaded) {
    Bytes const plain = textPattern(kGrainSizeBytes, 12);
    for (Kind const kind : {kCompressed, kCompressedAndEnciphered}) {
        putGrain(kind, plain);
        Bytes const sound = stream->content();
        stream->content()[static_cast<std::size_t>(allocator->slotOf(0).posSectors) * 512 + 40] ^=
            1;
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        EXPECT_TRUE(reportsCorruptData([&] { read(*grain, 10); }));
        EXPECT_TRUE(reportsCorruptData([&] { write(*grain, {1, 2, 3}); }));
        EXPECT_EQ(grain->getPosition(), 0);
        // The prepared form is handed out undecoded, read again rather than taken from memory.
        stream->content() = sound;
        EXPECT_EQ(takeApart(readPrepared(*grain), kGrainSizeBytes).plain, plain);
        EXPECT_EQ(readAll(*grain), plain);
        grain->close();
        EXPECT_EQ(writes(), Operations());
    }
}

TEST_F(GrainReading, FileThatEndsInsideTheGrainFailsInTheStream) {
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 13));
        auto const position = static_cast<std::size_t>(allocator->slotOf(0).posSectors) * 512;
        for (unsigned int const sizeBytes : {513U, 511U, 0U}) {
            stream->content().resize(position + sizeBytes);
            yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
            openGrain(*grain);
            for (int attempt = 0; attempt < 2; ++attempt)
                EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd,
                                          "Unexpected end of the scripted stream.",
                                          {{"uri", "test:/stream"}}, [&] { read(*grain, 1); }));
            EXPECT_THROW(readPrepared(*grain), yx::CIOError);
        }
        stream->content().resize(position);
    }
}

TEST_F(GrainReading, CipherWhoseBlocksDoNotDivideTheGrainIsAnInternalError) {
    cipher = yx::makeObject<FakeCipher>(24); // 4096 bytes are 170.7 blocks
    stream->content() = pattern(16384, 14);
    auto const grain = yx::makeObject<CVMDKGrain>(stream.get(), kReadOnly, kGrainSizeSectors,
                                                  allocator.get(), false, 1, nullptr, cipher.get(),
                                                  cryptKey(), toBuffer(Bytes(24, 1)));
    grain->open(0, 0, 16, 8);
    char const* const message =
        "Internal error: CVMDKGrain::readUncompressedGrain decrypted data size is not uncompressed "
        "grain size";
    Props const props = {{"decryptedSize", "4104"}, {"uncompressedGrainSize", "4096"}};
    EXPECT_TRUE(throwsError(message, props, [&] { read(*grain, 1); }));
    EXPECT_TRUE(throwsError(message, props, [&] { readPrepared(*grain); }));
}

TEST_F(GrainReading, RecordsOfCiphersWithOtherBlocksAreRead) {
    Bytes const plain = textPattern(kGrainSizeBytes, 15);
    for (int const blockSizeBytes : {1, 8, 24, 500, 512}) {
        cipher = yx::makeObject<FakeCipher>(blockSizeBytes);
        Buffer enciphered;
        Bytes const record = makeRecord(0, test_support::compressWithZlib(plain, 1));
        cipher->encrypt({}, record.data() + 12, static_cast<int>(record.size()) - 12, enciphered,
                        false, nullptr);
        putRecord(padded(concat({slice(record, 0, 12), toBytes(enciphered)}), 512));
        auto const grain = yx::makeObject<CVMDKGrain>(
            stream.get(), kReadOnly, kGrainSizeSectors, allocator.get(), true, 1, nullptr,
            cipher.get(), cryptKey(), toBuffer(Bytes(512, 1)));
        openGrain(*grain);
        EXPECT_EQ(readAll(*grain), plain) << blockSizeBytes;
    }
}

class PreparedGrainReading : public GrainReading {};

TEST_F(PreparedGrainReading, IsRefusedInsideAGrain) {
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    openGrain(*grain, 3);
    grain->seek(1);
    Buffer target = toBuffer(Bytes(3, 0xEE));
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotAllowed,
        "CVMDKGrain::tryReadPreparedGrainData can only be called when the position in the grain is "
        "0.",
        {{"uri", "test:/stream"},
         {"posInGrain", "1"},
         {"diskGrainIndex", "13"},
         {"extentGrainIndex", "3"}},
        [&] { grain->readPreparedGrainData(target); }));
    EXPECT_EQ(target.getUsed(), 0);
    EXPECT_EQ(grain->getPosition(), 1);
}

TEST_F(PreparedGrainReading, RecordComesWithItsPaddingUnlessItIsEnciphered) {
    Bytes const plain = textPattern(kGrainSizeBytes, 16);
    Bytes const record = preparedForm(kCompressed, plain, 10);
    std::size_t const dataEndBytes = 12 + takeApart(record, kGrainSizeBytes).compressedSizeBytes;
    ASSERT_LT(dataEndBytes, record.size());
    struct {
        Kind kind;
        Bytes prepared;
    } const cases[] = {{kPlain, plain},
                       {kEnciphered, plain},
                       {kCompressed, record},
                       {kCompressedAndEnciphered, slice(record, 0, dataEndBytes)}};
    for (auto const& [kind, prepared] : cases) {
        putGrain(kind, plain);
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain);
        EXPECT_TRUE(sameBytes(prepared, readPrepared(*grain))) << kind;
        EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
        EXPECT_EQ(grain->getBytesLeft(), 0);
        EXPECT_FALSE(stream->operations().empty());

        grain->seek(0);
        read(*grain, 1);
        grain->seek(0);
        stream->operations().clear();
        EXPECT_TRUE(sameBytes(prepared, readPrepared(*grain))) << kind;
        EXPECT_EQ(stream->operations(), Operations()) << "taken from memory";
    }
}

TEST_F(PreparedGrainReading, StoresChangesFirst) {
    for (Kind const kind : kAllKinds) {
        Bytes plain = textPattern(kGrainSizeBytes, 17);
        putGrain(kind, plain);
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        write(*grain, {1, 2, 3});
        std::copy_n(Bytes{1, 2, 3}.begin(), 3, plain.begin());
        grain->seek(0);
        Bytes const prepared = readPrepared(*grain);
        EXPECT_EQ(kind.compressed ? takeApart(prepared, kGrainSizeBytes).plain : prepared, plain);
        EXPECT_EQ(plainInFile(kind), plain);
        EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
    }
}

TEST_F(PreparedGrainReading, AbsentGrainComesFromTheProvider) {
    for (Kind const kind : kAllKinds) {
        provider = yx::makeObject<FakeDataProvider>();
        provider->setPreparedGrain({1, 2, 3, 4});
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        openGrain(*grain, 3);
        EXPECT_EQ(readPrepared(*grain), (Bytes{1, 2, 3, 4}));
        EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
        EXPECT_EQ(provider->requests(),
                  (Requests{{Request::PreparedGrain, 13 * 4096, 4096, kind.compressed}}));
        EXPECT_EQ(stream->operations(), Operations());
    }
}

TEST_F(PreparedGrainReading, AbsentGrainWithoutProviderIsAZeroGrainOfItsIndex) {
    for (Kind const kind : kAllKinds) {
        yx::P<CVMDKGrain> const grain = makeGrain(kind, kReadOnly);
        Bytes first;
        for (__int64 const index : {3, 4, 3}) {
            openGrain(*grain, index);
            Bytes const prepared = readPrepared(*grain);
            EXPECT_EQ(grain->getPosition(), kGrainSizeBytes);
            if (!kind.compressed) {
                EXPECT_EQ(prepared, zeros(kGrainSizeBytes));
                continue;
            }
            Record const record = takeApart(prepared, kGrainSizeBytes);
            EXPECT_EQ(record.lba, static_cast<unsigned long long>(index + 10) * 8);
            EXPECT_EQ(record.plain, zeros(kGrainSizeBytes));
            EXPECT_EQ(prepared.size(), 512U);
            if (first.empty())
                first = prepared;
            EXPECT_EQ(slice(prepared, 8, 504), slice(first, 8, 504));
        }
        EXPECT_EQ(stream->operations(), Operations());
    }
}

TEST_F(PreparedGrainReading, ZerosWrittenToAnAbsentGrainGiveWayToTheProvider) {
    provider = yx::makeObject<FakeDataProvider>();
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain, kReadWrite);
    openGrain(*grain);
    write(*grain, zeros(kGrainSizeBytes));
    grain->seek(0);
    EXPECT_EQ(readPrepared(*grain), FakeDataProvider::bytesAt(10 * 4096, 4096));
    EXPECT_EQ(stream->operations(), Operations());
}

} // namespace

} // namespace graindata_test
