#include "kelm/graindata/grain.h"

#include <limits>

#include "tests/graindata/grain_fixture.h"
#include "tests/support/fake_cipher.h"
#include "tests/support/ignored_exception_capture.h"

namespace graindata_test {

namespace {

using kelm::CVMDKGrain;
using test_support::FakeCipher;

constexpr __int64 kMax = std::numeric_limits<__int64>::max();

class Grain : public GrainTest {};

TEST_F(Grain, IsClosedAtFirst) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    EXPECT_FALSE(grain->isOpen());
    EXPECT_EQ(grain->getPosition(), 0);
    EXPECT_EQ(grain->getBytesLeft(), 0);
    EXPECT_EQ(grain->getGrainStartPositionSectors(), -1);
}

TEST_F(Grain, OpeningTouchesNoFile) {
    for (Kind const kind : kAllKinds) {
        putGrain(kind, pattern(kGrainSizeBytes, 1));
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        openGrain(*grain);
        EXPECT_TRUE(grain->isOpen());
        EXPECT_EQ(grain->getPosition(), 0);
        EXPECT_EQ(grain->getBytesLeft(), kGrainSizeBytes);
        EXPECT_EQ(grain->getGrainStartPositionSectors(), allocator->slotOf(0).posSectors);
        EXPECT_EQ(stream->operations(), Operations());
    }
}

TEST_F(Grain, OpeningStartsAtTheFirstByte) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    grain->open(0, 0, 0, 0);
    grain->seek(100);
    grain->open(1, 1, 0, 0);
    EXPECT_EQ(grain->getPosition(), 0);
}

TEST_F(Grain, ClosingForgetsThePlace) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    grain->open(0, 0, 16, 8);
    grain->seek(100);
    grain->close();
    EXPECT_FALSE(grain->isOpen());
    EXPECT_EQ(grain->getPosition(), 0);
    EXPECT_EQ(grain->getBytesLeft(), 0);
    EXPECT_EQ(grain->getGrainStartPositionSectors(), -1);
    grain->close();
}

TEST_F(Grain, SlotThatCannotHoldTheGrainIsRefusedAndLeavesItClosed) {
    struct {
        Kind kind;
        __int64 slotSizeSectors;
        char const* message;
    } const cases[] = {
        {kCompressed, 0, "Invalid slot size for allocated compressed grain: 0 sectors"},
        {kCompressed, -3, "Invalid slot size for allocated compressed grain: -3 sectors"},
        {kCompressedAndEnciphered, 0,
         "Invalid slot size for allocated compressed grain: 0 sectors"},
        {kPlain, 7,
         "Slot size for allocated uncompressed grain is smaller than the grain size (slot size: 7 "
         "sectors, grain size: 8 sectors"},
        {kEnciphered, -1,
         "Slot size for allocated uncompressed grain is smaller than the grain size (slot size: -1 "
         "sectors, grain size: 8 sectors"},
    };
    for (auto const& test : cases) {
        yx::P<CVMDKGrain> const grain = makeGrain(test.kind);
        grain->open(0, 0, 0, 0);
        EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open", test.message, {},
                                     [&] { grain->open(0, 0, 1, test.slotSizeSectors); }));
        EXPECT_FALSE(grain->isOpen());
    }
}

TEST_F(Grain, SlotMayBeLargerThanTheGrain) {
    for (Kind const kind : kAllKinds) {
        yx::P<CVMDKGrain> const grain = makeGrain(kind);
        grain->open(0, 0, 1, 9);
        EXPECT_TRUE(grain->isOpen());
        EXPECT_EQ(grain->getGrainStartPositionSectors(), 1);
    }
}

TEST_F(Grain, SlotSizeIsIgnoredWithoutAPosition) {
    for (Kind const kind : kAllKinds)
        for (__int64 const slotSizeSectors : {-5, 0, 3, 100}) {
            yx::P<CVMDKGrain> const grain = makeGrain(kind);
            grain->open(0, 0, 0, slotSizeSectors);
            EXPECT_TRUE(grain->isOpen());
            EXPECT_EQ(grain->getGrainStartPositionSectors(), 0);
        }
}

TEST_F(Grain, PlacesThatNoPositionCanExpressAreRefused) {
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open",
                                 "Invalid grain position: 9007199254740992 sectors", {},
                                 [&] { grain->open(0, 0, 9007199254740992, 1); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open",
                                 "Invalid grain position: 9223372036854775807 sectors", {},
                                 [&] { grain->open(0, 0, kMax, 1); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open", "Invalid disk grain index: 2251799813685247",
                                 {}, [&] { grain->open(0, 2251799813685247, 0, 0); }));
    EXPECT_TRUE(throwsInvalidArg("CVMDKGrain::open", "Invalid disk grain index: -1", {},
                                 [&] { grain->open(0, -1, 0, 0); }));
    EXPECT_FALSE(grain->isOpen());
    grain->open(0, 2251799813685246, 9007199254740991, 1);
    EXPECT_TRUE(grain->isOpen());
}

TEST_F(Grain, SeekReachesEveryByteAndNothingElse) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    grain->open(0, 0, 0, 0);
    for (__int64 const position : {4095, 0, 17}) {
        grain->seek(position);
        EXPECT_EQ(grain->getPosition(), position);
        EXPECT_EQ(grain->getBytesLeft(), kGrainSizeBytes - position);
    }
    struct {
        __int64 position;
        char const* text;
    } const cases[] = {{-1, "-1"}, {4096, "4096"}, {kMax, "9223372036854775807"}};
    for (auto const& test : cases) {
        EXPECT_TRUE(throwsInvalidArg(
            "CVMDKGrain::seek", std::string("Invalid seek position in VMDK grain: ") + test.text,
            {{"uri", "test:/stream"}, {"position", test.text}, {"grainSize", "4096"}},
            [&] { grain->seek(test.position); }));
        EXPECT_EQ(grain->getPosition(), 17);
    }
}

TEST_F(Grain, CreatedPreparersHaveTheSettingsOfTheExtent) {
    EXPECT_FALSE(makeGrain(kPlain)->createDataPreparer()->doesAnything());
    EXPECT_EQ(makeGrain(kPlain)->createDataPreparer()->getWorstCaseGrainSizeSectors(), 8);

    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed, yx::IIOStream::ReadWrite, 0);
    yx::P<kelm::CVMDKDataPreparer> const preparer = grain->createDataPreparer();
    EXPECT_NE(preparer, grain->createDataPreparer());
    EXPECT_TRUE(preparer->doesAnything());
    EXPECT_EQ(preparer->getWorstCaseGrainSizeSectors(), 9);
    Buffer source = toBuffer(Bytes(kGrainSizeBytes, 5));
    Buffer aux;
    // Level 0 stores.
    EXPECT_EQ(preparer->prepareGrainData(&source, 0, &aux)->getUsed(), 9 * 512);
}

TEST_F(Grain, IsWrittenByItsPositionItsChangesOrItsProvider) {
    yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
    EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent()) << "closed: the position is not 0";

    grain->open(3, 13, 0, 0);
    EXPECT_FALSE(grain->isGrainWritten());
    EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());

    provider = yx::makeObject<FakeDataProvider>();
    grain->setFallbackDataProvider(provider.get());
    EXPECT_FALSE(grain->isGrainWritten());
    provider->setWritten(true);
    EXPECT_TRUE(grain->isGrainWritten());
    EXPECT_FALSE(grain->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(provider->requests(), (Requests{{Request::IsWritten, 13 * 4096, 0, false},
                                              {Request::IsWritten, 13 * 4096, 0, false}}));
    provider->requests().clear();

    write(*grain, {1});
    EXPECT_TRUE(grain->isGrainWritten());
    EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
    provider->requests().clear();

    grain->open(4, 14, 16, 1);
    EXPECT_TRUE(grain->isGrainWritten());
    EXPECT_TRUE(grain->isGrainWrittenAndIndependentOfParent());
    EXPECT_EQ(provider->requests(), Requests());

    grain->setFallbackDataProvider(nullptr);
    grain->open(5, 15, 0, 0);
    EXPECT_FALSE(grain->isGrainWritten());
}

TEST_F(Grain, GrainSizesThatNoBufferCanHoldAreCorruptData) {
    struct {
        __int64 grainSizeSectors;
        char const* message;
    } const cases[] = {
        {0, "Invalid grain size of VMDK grain: 0 sectors"},
        {-8, "Invalid grain size of VMDK grain: -8 sectors"},
        {2097151, "Invalid grain size of VMDK grain: 2097151 sectors"},
        {kMax, "Invalid grain size of VMDK grain: 9223372036854775807 sectors"},
        {std::numeric_limits<__int64>::min(),
         "Invalid grain size of VMDK grain: -9223372036854775808 sectors"},
    };
    for (Kind const kind : kAllKinds)
        for (auto const& test : cases)
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::CorruptData, test.message, {{"uri", "test:/stream"}}, [&] {
                    yx::makeObject<CVMDKGrain>(
                        stream.get(), yx::IIOStream::ReadOnly, test.grainSizeSectors,
                        allocator.get(), kind.compressed, 1, nullptr,
                        kind.enciphered ? cipher.get() : nullptr, cryptKey(), toBuffer(iv));
                }));
}

TEST_F(Grain, LargestGrainSizeIsAccepted) {
    for (Kind const kind : kAllKinds) {
        auto const grain = yx::makeObject<CVMDKGrain>(
            stream.get(), yx::IIOStream::ReadOnly, 2097150, allocator.get(), kind.compressed, 1,
            nullptr, kind.enciphered ? cipher.get() : nullptr, cryptKey(), toBuffer(iv));
        grain->open(0, 0, 0, 0);
        EXPECT_EQ(grain->getBytesLeft(), 1073740800);
        EXPECT_EQ(read(*grain, 100), zeros(100));
    }
}

TEST_F(Grain, CipherWhoseBlocksFitNoSectorIsRefused) {
    struct {
        int blockSizeBytes;
        char const* message;
    } const cases[] = {{0, "Invalid block size of cipher: 0 bytes"},
                       {-16, "Invalid block size of cipher: -16 bytes"},
                       {513, "Invalid block size of cipher: 513 bytes"}};
    for (auto const& [blockSizeBytes, message] : cases) {
        cipher = yx::makeObject<FakeCipher>(blockSizeBytes);
        EXPECT_TRUE(throwsInvalidArg("CVMDKGrain constructor", message, {{"uri", "test:/stream"}},
                                     [&] { makeGrain(kCompressedAndEnciphered); }));
    }
}

TEST_F(Grain, InitializationVectorBelowACipherBlockIsRefusedWhenItIsNeeded) {
    for (Kind const kind : {kEnciphered, kCompressedAndEnciphered}) {
        putGrain(kind, pattern(kGrainSizeBytes, 2));
        auto const grain = yx::makeObject<CVMDKGrain>(
            stream.get(), yx::IIOStream::ReadWrite, kGrainSizeSectors, allocator.get(),
            kind.compressed, 1, nullptr, cipher.get(), cryptKey(), toBuffer(Bytes(15, 1)));
        std::string const message =
            "Initialization vector is shorter than a cipher block (size: 15 bytes, block size: 16 "
            "bytes)";
        openGrain(*grain);
        EXPECT_TRUE(throwsInvalidArg("CVMDKGrain constructor", message, {{"uri", "test:/stream"}},
                                     [&] { read(*grain, 1); }));
        EXPECT_TRUE(
            throwsInvalidArg("CVMDKGrain constructor", message, {{"uri", "test:/stream"}}, [&] {
                grain->writePreparedGrainData(toBuffer(Bytes(kGrainSizeBytes, 7)));
            }));
        EXPECT_EQ(writes(), Operations());
    }
}

TEST_F(Grain, DestructionStoresTheChanges) {
    {
        yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
        openGrain(*grain);
        write(*grain, pattern(kGrainSizeBytes, 3));
    }
    EXPECT_EQ(plainInFile(kCompressed), pattern(kGrainSizeBytes, 3));
}

TEST_F(Grain, FailureInDestructionIsReportedAndSwallowed) {
    test_support::IgnoredExceptionCapture ignored;
    {
        yx::P<CVMDKGrain> const grain = makeGrain(kCompressed);
        openGrain(*grain);
        write(*grain, pattern(kGrainSizeBytes, 3));
        allocator->setFailing(true);
    }
    ASSERT_EQ(ignored.entries().size(), 1U);
    EXPECT_EQ(ignored.entries()[0].className, "kelm::CVMDKGrain");
    EXPECT_EQ(ignored.entries()[0].error, "Scripted allocation failure.");
    EXPECT_TRUE(ignored.entries()[0].flag);
}

TEST_F(Grain, CopyTakesTheUnflushedChangesAlong) {
    yx::P<CVMDKGrain> const grain = makeGrain(kPlain);
    openGrain(*grain);
    write(*grain, pattern(kGrainSizeBytes, 4));
    yx::P<CVMDKGrain> const copy = yx::makeObject<CVMDKGrain>(*grain);
    EXPECT_EQ(copy->getPosition(), kGrainSizeBytes);
    EXPECT_EQ(readAll(*copy), pattern(kGrainSizeBytes, 4));
    copy->flushChangesToStream();
    EXPECT_EQ(plainInFile(kPlain), pattern(kGrainSizeBytes, 4));
}

} // namespace

} // namespace graindata_test
