#include "kelm/extent/null_extent_file.h"

#include <limits>

#include <gtest/gtest.h>

#include "tests/support/allocation_counter.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/fake_data_provider.h"
#include "tests/support/reference_codec.h"

namespace kelm {

namespace {

using test_support::Buffer;
using test_support::Bytes;
using test_support::FakeDataProvider;
using test_support::slice;
using test_support::throwsError;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::toBytes;
using test_support::zeros;
using Request = FakeDataProvider::Request;
using Requests = std::vector<Request>;

constexpr char kURI[] = "mem:/disk-s001.vmdk";
constexpr __int64 kMax = std::numeric_limits<__int64>::max();

/// An extent of five grains of 4096 bytes and a rest of one sector, from grain 10 of its disk on.
class NullExtentFile : public testing::Test {
protected:
    yx::P<CVMDKNullExtentFile> makeExtent(IVMDKDataProvider* fallback = nullptr,
                                          bool compressed = true) {
        return yx::makeObject<CVMDKNullExtentFile>(yx::CURI(kURI), 10, 8, 41, 512, compressed, 6,
                                                   fallback);
    }

    static Bytes read(CVMDKNullExtentFile& extent, int sizeBytes) {
        Bytes target(static_cast<std::size_t>(sizeBytes), 0xEE);
        extent.read(target.data(), sizeBytes);
        return target;
    }

    static Bytes readPrepared(CVMDKNullExtentFile& extent) {
        Buffer data = test_support::toBuffer(Bytes(3, 0xEE));
        extent.readPreparedGrainData(data);
        return toBytes(data);
    }

    yx::P<FakeDataProvider> provider = yx::makeObject<FakeDataProvider>();
};

constexpr __int64 kExtentSizeBytes = 41 * 512;

TEST_F(NullExtentFile, ReturnsWhatItWasMadeWith) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    EXPECT_EQ(extent->getURI(), yx::CURI(kURI));
    EXPECT_EQ(extent->getStartGrainIndex(), 10);
    EXPECT_EQ(extent->getGrainSizeSectors(), 8);
    EXPECT_TRUE(extent->getCompressed());
    EXPECT_FALSE(makeExtent(nullptr, false)->getCompressed());
    EXPECT_EQ(extent->getPosition(), 0);
    extent->flushChanges();
}

TEST_F(NullExtentFile, SeekReachesEveryByteAndTheEnd) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    for (__int64 const position :
         {__int64(0), kExtentSizeBytes - 1, kExtentSizeBytes, __int64(7)}) {
        extent->seek(position);
        EXPECT_EQ(extent->getPosition(), position);
    }
    struct {
        __int64 position;
        char const* message;
    } const cases[] = {
        {-1, "Invalid position: -1"},
        {kExtentSizeBytes + 1, "Invalid position: 20993"},
        {kMax, "Invalid position: 9223372036854775807"},
        {std::numeric_limits<__int64>::min(), "Invalid position: -9223372036854775808"},
    };
    for (auto const& test : cases) {
        EXPECT_TRUE(throwsInvalidArg("CVMDKNullExtentFile::seek", test.message, {{"uri", kURI}},
                                     [&] { extent->seek(test.position); }));
        EXPECT_EQ(extent->getPosition(), 7);
    }
}

TEST_F(NullExtentFile, ReadsZerosWithoutAProvider) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    extent->seek(100);
    EXPECT_EQ(read(*extent, 5000), zeros(5000));
    EXPECT_EQ(extent->getPosition(), 5100);
    EXPECT_EQ(read(*extent, static_cast<int>(kExtentSizeBytes) - 5100),
              zeros(static_cast<std::size_t>(kExtentSizeBytes) - 5100));
    EXPECT_EQ(extent->getPosition(), kExtentSizeBytes);
}

TEST_F(NullExtentFile, ReadsTheProviderAtThePositionInTheDisk) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent(provider.get());
    extent->seek(100);
    EXPECT_EQ(read(*extent, 5000), FakeDataProvider::bytesAt(10 * 4096 + 100, 5000));
    EXPECT_EQ(extent->getPosition(), 5100);
    EXPECT_EQ(provider->requests(), (Requests{{Request::Data, 41060, 5000, false}}));
}

TEST_F(NullExtentFile, ReplacedProviderIsTheOneThatIsAsked) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    extent->setFallbackDataProvider(provider.get());
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(10 * 4096, 10));
    extent->setFallbackDataProvider(nullptr);
    EXPECT_EQ(read(*extent, 10), zeros(10));
    EXPECT_EQ(provider->requests().size(), 1U);
}

TEST_F(NullExtentFile, ReadOfNoBytesAtTheVeryEndSucceeds) {
    for (bool const hasProvider : {false, true}) {
        yx::P<CVMDKNullExtentFile> const extent =
            makeExtent(hasProvider ? provider.get() : nullptr);
        extent->seek(kExtentSizeBytes);
        extent->read(nullptr, 0);
        EXPECT_EQ(extent->getPosition(), kExtentSizeBytes);
    }
}

TEST_F(NullExtentFile, ReadPastTheEndReadsNothing) {
    for (bool const hasProvider : {false, true}) {
        yx::P<CVMDKNullExtentFile> const extent =
            makeExtent(hasProvider ? provider.get() : nullptr);
        struct {
            __int64 position;
            int bytes;
            char const* positionText;
            char const* bytesText;
        } const cases[] = {{kExtentSizeBytes, 1, "20992", "1"},
                           {20000, 993, "20000", "993"},
                           {1, 2147483647, "1", "2147483647"}};
        for (auto const& test : cases) {
            unsigned char target = 0xEE;
            extent->seek(test.position);
            EXPECT_TRUE(throwsIOError(
                yx::CIOError::UnexpectedEnd,
                "Unexpected end of data reading from VMDK null extent file.",
                {{"uri", kURI}, {"position", test.positionText}, {"bytesToRead", test.bytesText}},
                [&] { extent->read(&target, test.bytes); }));
            EXPECT_EQ(target, 0xEE);
            EXPECT_EQ(extent->getPosition(), test.position);
        }
        EXPECT_EQ(provider->requests(), Requests());
    }
}

TEST_F(NullExtentFile, ReadOfANegativeSizeIsRefused) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    extent->seek(7);
    EXPECT_TRUE(throwsInvalidArg("CVMDKNullExtentFile::read", "Invalid number of bytes to read: -1",
                                 {{"uri", kURI}}, [&] { extent->read(nullptr, -1); }));
    EXPECT_EQ(extent->getPosition(), 7);
}

TEST_F(NullExtentFile, EveryWriteIsRefused) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent(provider.get());
    extent->seek(4096);
    EXPECT_TRUE(throwsError("Internal error: write method called on VMDK null extent file.",
                            {{"uri", kURI}}, [&] { extent->write("abc", 3); }));
    EXPECT_TRUE(throwsError("Internal error: write method called on VMDK null extent file.",
                            {{"uri", kURI}}, [&] { extent->write(nullptr, 0); }));
    EXPECT_TRUE(throwsError(
        "Internal error: writePreparedGrainData method called on VMDK null extent file.",
        {{"uri", kURI}}, [&] { extent->writePreparedGrainData(Buffer()); }));
    EXPECT_TRUE(throwsError(
        "Internal error: makeGrainIndependentOfParent method called on VMDK null extent file.",
        {{"uri", kURI}}, [&] { extent->makeGrainIndependentOfParent(2); }));
    EXPECT_EQ(extent->getPosition(), 4096);
    EXPECT_EQ(provider->requests(), Requests());
}

TEST_F(NullExtentFile, GrainIsWrittenIfTheProviderHasItAndNeverIndependent) {
    yx::P<CVMDKNullExtentFile> const alone = makeExtent();
    EXPECT_FALSE(alone->isGrainWritten());
    EXPECT_FALSE(alone->isGrainWrittenAndIndependentOfParent());

    yx::P<CVMDKNullExtentFile> const extent = makeExtent(provider.get());
    EXPECT_FALSE(extent->isGrainWritten());
    provider->setWritten(true);
    provider->requests().clear();
    for (__int64 const position : {__int64(0), __int64(4095), __int64(4096), kExtentSizeBytes}) {
        extent->seek(position);
        EXPECT_TRUE(extent->isGrainWritten());
        EXPECT_FALSE(extent->isGrainWrittenAndIndependentOfParent());
        EXPECT_EQ(extent->getPosition(), position);
    }
    // The start of the grain under the cursor, also where the extent has ended.
    EXPECT_EQ(provider->requests(), (Requests{{Request::IsWritten, 40960, 0, false},
                                              {Request::IsWritten, 40960, 0, false},
                                              {Request::IsWritten, 45056, 0, false},
                                              {Request::IsWritten, 61440, 0, false}}));
}

TEST_F(NullExtentFile, TakesNoSpace) {
    yx::P<CVMDKSpaceInfo> const info = makeExtent(provider.get())->gatherSpaceInfo();
    EXPECT_EQ(info->getPayloadSize(), 0);
    EXPECT_EQ(info->getPayloadSizeInFile(), 0);
    EXPECT_EQ(info->getHeaderSize(), 0);
    EXPECT_EQ(info->getDeadSpaceSize(), 0);
    EXPECT_EQ(provider->requests(), Requests());
}

TEST_F(NullExtentFile, CreatedPreparersHaveTheSettingsOfTheExtent) {
    EXPECT_FALSE(makeExtent(nullptr, false)->createDataPreparer()->doesAnything());
    yx::P<CVMDKDataPreparer> const preparer = makeExtent()->createDataPreparer();
    EXPECT_TRUE(preparer->doesAnything());
    EXPECT_EQ(preparer->getWorstCaseGrainSizeSectors(), 9);
}

TEST_F(NullExtentFile, PreparedZeroGrainsDifferInTheirIndexAlone) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent();
    extent->seek(3 * 4096);
    Bytes const third = readPrepared(*extent);
    EXPECT_EQ(extent->getPosition(), 4 * 4096);
    Bytes const fourth = readPrepared(*extent);
    EXPECT_EQ(extent->getPosition(), 5 * 4096);

    EXPECT_EQ(slice(third, 0, 8), test_support::fromHex("6800000000000000"));  // 13 * 8
    EXPECT_EQ(slice(fourth, 0, 8), test_support::fromHex("7000000000000000")); // 14 * 8
    ASSERT_EQ(third.size(), 512U);
    EXPECT_EQ(slice(third, 8, 504), slice(fourth, 8, 504));
    EXPECT_EQ(test_support::decompressWithZlib(slice(third, 12, third[8]), 4096), zeros(4096));
    EXPECT_EQ(third[9], 0) << "a compressed size below 256";
}

TEST_F(NullExtentFile, ZeroGrainIsPreparedOnce) {
    class CountingExtent : public CVMDKNullExtentFile {
    public:
        using CVMDKNullExtentFile::CVMDKNullExtentFile;

        yx::P<CVMDKDataPreparer> createDataPreparer() override {
            ++count;
            return CVMDKNullExtentFile::createDataPreparer();
        }

        int count = 0;
    };
    auto const extent =
        yx::makeObject<CountingExtent>(yx::CURI(kURI), 10, 8, 41, 512, true, 6, nullptr);
    EXPECT_EQ(extent->count, 0);
    Bytes const first = readPrepared(*extent);
    EXPECT_EQ(extent->count, 1);
    // The cached grain stays over a change of the provider.
    extent->setFallbackDataProvider(provider.get());
    extent->setFallbackDataProvider(nullptr);
    extent->seek(0);
    EXPECT_EQ(readPrepared(*extent), first);
    EXPECT_EQ(extent->count, 1);

    Buffer data = test_support::toBuffer(first);
    test_support::AllocationCounter const counter;
    extent->readPreparedGrainData(data);
    EXPECT_EQ(counter.count(), 0) << "a copy and no more";
}

TEST_F(NullExtentFile, PreparedGrainOfAnUncompressedDiskIsZeros) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent(nullptr, false);
    EXPECT_EQ(readPrepared(*extent), zeros(4096));
    EXPECT_EQ(readPrepared(*extent), zeros(4096));
    EXPECT_EQ(extent->getPosition(), 8192);
}

TEST_F(NullExtentFile, PreparedGrainComesFromTheProvider) {
    for (bool const compressed : {false, true}) {
        provider->requests().clear();
        provider->setPreparedGrain({1, 2, 3, 4, 5});
        yx::P<CVMDKNullExtentFile> const extent = makeExtent(provider.get(), compressed);
        extent->seek(2 * 4096);
        EXPECT_EQ(readPrepared(*extent), (Bytes{1, 2, 3, 4, 5}));
        EXPECT_EQ(extent->getPosition(), 3 * 4096);
        EXPECT_EQ(provider->requests(),
                  (Requests{{Request::PreparedGrain, 12 * 4096, 4096, compressed}}));
    }
}

TEST_F(NullExtentFile, PreparedReadChecksTheEndThenTheBoundary) {
    struct {
        __int64 position;
        char const* text;
        bool exceeds;
    } const cases[] = {
        {20480, "20480", true},  // on a boundary, but the grain is cut off
        {20000, "20000", true},  // both
        {20992, "20992", true},  // at the very end
        {16897, "16897", true},  // both, by one byte
        {16896, "16896", false}, // the last place from which a grain would fit
        {1, "1", false},
    };
    for (bool const hasProvider : {false, true}) {
        yx::P<CVMDKNullExtentFile> const extent =
            makeExtent(hasProvider ? provider.get() : nullptr);
        for (auto const& [position, text, exceeds] : cases) {
            extent->seek(position);
            if (exceeds) {
                EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                          "Prepared grain read exceeds VMDK extent size.",
                                          {{"uri", kURI},
                                           {"position", text},
                                           {"grainSize", "4096"},
                                           {"extentSize", "20992"}},
                                          [&] { readPrepared(*extent); }));
            } else {
                EXPECT_TRUE(throwsIOError(
                    yx::CIOError::NotAligned,
                    "Prepared grain read in VMDK extent file can only be done on a grain boundary.",
                    {{"uri", kURI}, {"position", text}, {"grainSize", "4096"}},
                    [&] { readPrepared(*extent); }));
            }
            EXPECT_EQ(extent->getPosition(), position);
        }
        EXPECT_EQ(provider->requests(), Requests());
    }
}

TEST_F(NullExtentFile, FailureOfTheProviderPassesAndLeavesTheCursor) {
    yx::P<CVMDKNullExtentFile> const extent = makeExtent(provider.get());
    extent->seek(4096);
    provider->setFailing(true);
    for (auto const& action : {std::function<void()>([&] { read(*extent, 10); }),
                               std::function<void()>([&] { readPrepared(*extent); }),
                               std::function<void()>([&] { extent->isGrainWritten(); })}) {
        EXPECT_TRUE(
            throwsIOError(yx::CIOError::IOFailure, "Scripted provider failure.", {}, action));
        EXPECT_EQ(extent->getPosition(), 4096);
    }
    provider->setFailing(false);
    EXPECT_EQ(read(*extent, 10), FakeDataProvider::bytesAt(11 * 4096, 10));
}

TEST_F(NullExtentFile, GrainSizesThatCannotBeAreRefusedWhereTheyMatter) {
    struct {
        __int64 grainSizeSectors;
        char const* message;
    } const cases[] = {
        {0, "Invalid grain size of VMDK null extent file: 0 sectors"},
        {-1, "Invalid grain size of VMDK null extent file: -1 sectors"},
        {4194304, "Invalid grain size of VMDK null extent file: 4194304 sectors"},
        {kMax, "Invalid grain size of VMDK null extent file: 9223372036854775807 sectors"},
    };
    for (auto const& [grainSizeSectors, message] : cases) {
        auto const extent = yx::makeObject<CVMDKNullExtentFile>(yx::CURI(kURI), 0, grainSizeSectors,
                                                                kMax, 512, true, 6, provider.get());
        for (auto const& action : {std::function<void()>([&] { read(*extent, 10); }),
                                   std::function<void()>([&] { readPrepared(*extent); }),
                                   std::function<void()>([&] { extent->isGrainWritten(); })})
            EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, message, {{"uri", kURI}}, action));
        EXPECT_THROW(extent->createDataPreparer(), yx::CInvalidArgError);
        extent->setFallbackDataProvider(nullptr);
        EXPECT_EQ(read(*extent, 10), zeros(10));
        EXPECT_THROW(readPrepared(*extent), yx::CIOError);
    }
    EXPECT_EQ(provider->requests(), Requests());
}

TEST_F(NullExtentFile, ExtremeSizesAndPlacesStayWithinTheNumbers) {
    auto const extent = yx::makeObject<CVMDKNullExtentFile>(yx::CURI(kURI), kMax, 8, kMax, 512,
                                                            true, 6, provider.get());
    extent->seek(kMax);
    EXPECT_FALSE(extent->isGrainWritten());
    EXPECT_THROW(read(*extent, 1), yx::CIOError);
    extent->seek(kMax - 1);
    read(*extent, 1);
    EXPECT_EQ(extent->getPosition(), kMax);
    EXPECT_THROW(readPrepared(*extent), yx::CIOError);
    // The provider is asked for the end of all positions, where no disk has data.
    EXPECT_EQ(provider->requests(),
              (Requests{{Request::IsWritten, kMax, 0, false}, {Request::Data, kMax, 1, false}}));

    auto const negative =
        yx::makeObject<CVMDKNullExtentFile>(yx::CURI(kURI), 0, 8, -5, 512, true, 6, nullptr);
    EXPECT_THROW(negative->seek(1), yx::CInvalidArgError);
    EXPECT_THROW(read(*negative, 1), yx::CIOError);
}

} // namespace

} // namespace kelm
