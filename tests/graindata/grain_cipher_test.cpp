#include "kelm/graindata/grain_cipher.h"

#include <algorithm>

#include "tests/graindata/grain_fixture.h"

using kelm::CVMDKGrain;
using kelm::CVMDKGrainCipher;

namespace graindata_test {
namespace {

constexpr auto kForReading = yx::IIOStream::ReadOnly;

constexpr Kind kEncipheredKinds[] = {kEnciphered, kCompressedAndEnciphered};

Props grainProps(char const* posInGrain) {
    return {{"uri", "test:/stream"},
            {"posInGrain", posInGrain},
            {"diskGrainIndex", "13"},
            {"extentGrainIndex", "3"}};
}

/// Grains that differ in how far their records fill the last cipher block and the last sector.
std::vector<Bytes> plainGrains() {
    std::vector<Bytes> grains{zeros(kGrainSizeBytes), pattern(kGrainSizeBytes, 3)};
    for (unsigned int seed = 0; seed < 24; ++seed)
        grains.push_back(
            concat({pattern(60 + 5 * seed, seed), zeros(kGrainSizeBytes - 60 - 5 * seed)}));
    return grains;
}

class GrainCipher : public GrainTest {
protected:
    CVMDKGrainCipher makeCipher(Kind kind) const {
        return CVMDKGrainCipher(yx::makeObject<krym::CCipher_AES256CBC>().get(), cryptKey(),
                                toBuffer(iv), kGrainSizeSectors, kind.compressed);
    }

    Bytes encipher(Kind kind, Bytes const& prepared, __int64 diskGrainIndex) const {
        Buffer target = toBuffer(Bytes(3, 0xEE));
        makeCipher(kind).encipher(toBuffer(prepared), diskGrainIndex, target);
        return toBytes(target);
    }

    Bytes decipher(Kind kind, Bytes const& enciphered, __int64 diskGrainIndex) const {
        Buffer target = toBuffer(Bytes(3, 0xEE));
        makeCipher(kind).decipher(toBuffer(enciphered), diskGrainIndex, target);
        return toBytes(target);
    }

    /// What a slot of the file begins with.
    Bytes storedInFile(__int64 index, std::size_t sizeBytes) const {
        return slice(stream->content(),
                     static_cast<std::size_t>(allocator->slotOf(index).posSectors) * 512,
                     sizeBytes);
    }
};

TEST_F(GrainCipher, MakesWhatAFileHoldsOfAGrainAndTheReverse) {
    constexpr __int64 kFarIndex = 0x123456789;
    for (Kind const kind : kEncipheredKinds) {
        for (Bytes const& plain : plainGrains()) {
            for (__int64 const index : {__int64{0}, kFarIndex}) {
                SCOPED_TRACE(testing::Message() << kind << " " << index);
                Bytes const prepared = preparedForm(kind, plain, index);
                Bytes const stored = storedForm(kind, plain, index);
                EXPECT_TRUE(sameBytes(stored, encipher(kind, prepared, index)));
                EXPECT_TRUE(sameBytes(prepared, decipher(kind, stored, index)));
            }
        }
    }
}

TEST_F(GrainCipher, DecipheredRecordEndsWithZerosWhateverFollowsItsBlocks) {
    Bytes const plain = concat({pattern(100, 1), zeros(kGrainSizeBytes - 100)});
    Bytes const prepared = preparedForm(kCompressedAndEnciphered, plain, 5);
    Bytes stored = storedForm(kCompressedAndEnciphered, plain, 5);
    Bytes const padding(512 - stored.size() % 512, 0xAA);
    EXPECT_TRUE(
        sameBytes(prepared, decipher(kCompressedAndEnciphered, concat({stored, padding}), 5)));
    // The size of the data, and no block more than that takes.
    std::size_t const dataSize = stored[8] + stored[9] * 256u;
    stored.resize(12 + (dataSize + 15) / 16 * 16);
    EXPECT_TRUE(sameBytes(prepared, decipher(kCompressedAndEnciphered, stored, 5)));
}

TEST_F(GrainCipher, DataOfAWrongSizeAreRefused) {
    auto const refuses = [this](Kind kind, bool enciphers, Bytes const& data,
                                std::string const& message) {
        return throwsIOError(yx::CIOError::CorruptData, message, {}, [&] {
            enciphers ? encipher(kind, data, 1) : decipher(kind, data, 1);
        });
    };
    EXPECT_TRUE(refuses(kEnciphered, true, zeros(4095),
                        "Prepared VMDK grain data has an invalid size: 4095 bytes"));
    EXPECT_TRUE(refuses(kEnciphered, false, zeros(4112),
                        "Enciphered VMDK grain data has an invalid size: 4112 bytes"));
    EXPECT_TRUE(refuses(kCompressedAndEnciphered, true, zeros(11),
                        "Prepared VMDK grain data has an invalid size: 11 bytes"));
    EXPECT_TRUE(refuses(kCompressedAndEnciphered, false, zeros(11),
                        "Enciphered VMDK grain data has an invalid size: 11 bytes"));
    Bytes const header = concat({zeros(8), littleEndian(17, 4)});
    EXPECT_TRUE(refuses(kCompressedAndEnciphered, false, concat({header, zeros(31)}),
                        "Enciphered VMDK grain data has an invalid size: 43 bytes"));
    Bytes const endless = concat({zeros(8), littleEndian(0xFFFFFFFF, 4), zeros(500)});
    EXPECT_TRUE(refuses(kCompressedAndEnciphered, false, endless,
                        "Enciphered VMDK grain data has an invalid size: 512 bytes"));
    EXPECT_EQ(512u, decipher(kCompressedAndEnciphered, concat({header, zeros(32)}), 1).size());
}

TEST_F(GrainCipher, BadArgumentsAreRefused) {
    constexpr char kConstructor[] = "CVMDKGrainCipher constructor";
    auto const make = [this](__int64 grainSizeSectors, std::size_t ivSizeBytes) {
        CVMDKGrainCipher(cipher.get(), cryptKey(), toBuffer(zeros(ivSizeBytes)), grainSizeSectors,
                         true);
    };
    EXPECT_TRUE(throwsInvalidArg(kConstructor, "Invalid grain size: 0 sectors", Props{},
                                 [&] { make(0, 16); }));
    EXPECT_TRUE(throwsInvalidArg(kConstructor, "Invalid grain size: 2097151 sectors", Props{},
                                 [&] { make(2097151, 16); }));
    EXPECT_TRUE(throwsInvalidArg(kConstructor, "Invalid size of initialization vector: 15 bytes",
                                 Props{}, [&] { make(8, 15); }));
}

TEST_F(GrainCipher, CopiedCipherEnciphersAlike) {
    Buffer const plain = toBuffer(pattern(kGrainSizeBytes, 5));
    CVMDKGrainCipher original = makeCipher(kEnciphered);
    CVMDKGrainCipher const copy(original);
    CVMDKGrainCipher assigned(cipher.get(), cryptKey(), toBuffer(zeros(16)), 1, true);
    assigned = copy;
    Buffer expected;
    Buffer target;
    original.encipher(plain, 7, expected);
    assigned.encipher(plain, 7, target);
    EXPECT_TRUE(sameBytes(expected, target));
}

TEST_F(GrainCipher, EncipheredGrainIsStoredAsThePreparedOneWouldBe) {
    for (Kind const kind : kEncipheredKinds) {
        SCOPED_TRACE(testing::Message() << kind);
        // Grains of several sizes over one place: it stays, and moves, by the same rule.
        for (Bytes const& plain : plainGrains()) {
            Bytes const stored = storedForm(kind, plain, kStartGrainIndex + 1);
            yx::P<CVMDKGrain> const prepared = makeGrain(kind);
            openGrain(*prepared, 0);
            prepared->writePreparedGrainData(toBuffer(preparedForm(kind, plain, kStartGrainIndex)));
            yx::P<CVMDKGrain> const enciphered = makeGrain(kind);
            openGrain(*enciphered, 1);
            enciphered->writeEncipheredGrainData(toBuffer(stored));
            EXPECT_EQ(0, enciphered->getBytesLeft());
            EXPECT_EQ(allocator->slotOf(0).sizeSectors, allocator->slotOf(1).sizeSectors);
            EXPECT_TRUE(sameBytes(stored, storedInFile(1, stored.size())));
            EXPECT_TRUE(sameBytes(plain, readAll(*enciphered)));
        }
    }
}

TEST_F(GrainCipher, EncipheredGrainIsReadAsTheFileHoldsIt) {
    for (Kind const kind : kEncipheredKinds) {
        SCOPED_TRACE(testing::Message() << kind);
        for (Bytes const& plain : plainGrains()) {
            putGrain(kind, plain, 2);
            Bytes const stored = storedForm(kind, plain, kStartGrainIndex + 2);
            yx::P<CVMDKGrain> const grain = makeGrain(kind, kForReading);
            openGrain(*grain, 2);
            Buffer target = toBuffer(Bytes(3, 0xEE));
            ASSERT_TRUE(grain->tryReadEncipheredGrainData(target));
            EXPECT_EQ(0, grain->getBytesLeft());
            // What follows the data is padding, and sectors of that alone are not read.
            std::size_t const sizeBytes = std::min(stored.size(), toBytes(target).size());
            EXPECT_TRUE(
                sameBytes(slice(stored, 0, sizeBytes), slice(toBytes(target), 0, sizeBytes)));
            EXPECT_TRUE(sameBytes(preparedForm(kind, plain, kStartGrainIndex + 2),
                                  decipher(kind, toBytes(target), kStartGrainIndex + 2)));
        }
    }
}

TEST_F(GrainCipher, ChangesInMemoryAreStoredBeforeTheGrainIsReadEnciphered) {
    Bytes const plain = pattern(kGrainSizeBytes, 4);
    yx::P<CVMDKGrain> const grain = makeGrain(kEnciphered);
    openGrain(*grain);
    write(*grain, plain);
    grain->seek(0);
    Buffer target;
    ASSERT_TRUE(grain->tryReadEncipheredGrainData(target));
    EXPECT_TRUE(sameBytes(storedForm(kEnciphered, plain, kStartGrainIndex), toBytes(target)));
}

TEST_F(GrainCipher, GrainThatTheExtentDoesNotHoldIsNotReadEnciphered) {
    provider = yx::makeObject<FakeDataProvider>();
    yx::P<CVMDKGrain> const grain = makeGrain(kEnciphered);
    openGrain(*grain, 3);
    Buffer target;
    EXPECT_FALSE(grain->tryReadEncipheredGrainData(target));
    EXPECT_EQ(kGrainSizeBytes, grain->getBytesLeft());
    EXPECT_TRUE(reads().empty());
}

TEST_F(GrainCipher, ChecksOfTheGrainComeBeforeAnythingChanges) {
    Buffer target;
    yx::P<CVMDKGrain> const plain = makeGrain(kCompressed);
    openGrain(*plain, 3);
    EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::writeEncipheredGrainData was called, but "
                            "the grain is not enciphered.",
                            {{"uri", "test:/stream"}},
                            [&] { plain->writeEncipheredGrainData(target); }));
    EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::tryReadEncipheredGrainData was called, "
                            "but the grain is not enciphered.",
                            {{"uri", "test:/stream"}},
                            [&] { plain->tryReadEncipheredGrainData(target); }));
    yx::P<CVMDKGrain> const readOnly = makeGrain(kEnciphered, kForReading);
    openGrain(*readOnly, 3);
    EXPECT_TRUE(throwsError("Internal error: CVMDKGrain::writePreparedGrainData was called, but "
                            "the grain was not opened for writing.",
                            {}, [&] { readOnly->writeEncipheredGrainData(target); }));
    yx::P<CVMDKGrain> const grain = makeGrain(kEnciphered);
    openGrain(*grain, 3);
    write(*grain, {1});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "CVMDKGrain::tryReadPreparedGrainData can only be called when the "
                              "position in the grain is 0.",
                              grainProps("1"), [&] { grain->tryReadEncipheredGrainData(target); }));
    Props writeProps = grainProps("1");
    writeProps.push_back({"preparedDataSize", "4096"});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "CVMDKGrain::writePreparedGrainData can only be called when the "
                              "position in the grain is 0.",
                              writeProps,
                              [&] { grain->writeEncipheredGrainData(toBuffer(zeros(4096))); }));
    grain->seek(0);
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Enciphered VMDK grain data has an invalid size: 100 bytes", {},
                              [&] { grain->writeEncipheredGrainData(toBuffer(zeros(100))); }));
    EXPECT_EQ(readAll(*grain), concat({{1}, zeros(kGrainSizeBytes - 1)})) << "changes stay";
    EXPECT_TRUE(writes().empty());
}

} // namespace
} // namespace graindata_test
