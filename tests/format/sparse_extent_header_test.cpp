#include "kelm/format/sparse_extent_header.h"

#include <algorithm>
#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"

namespace sparse_extent_header_test {

namespace {

using kelm::CVMDKSparseExtentHeader;
using test_support::ByteBuilder;
using test_support::Bytes;
using test_support::ScriptedStream;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::toBytes;

constexpr std::uint32_t kPlainMagic = 0x564D444B;
constexpr std::uint32_t kExtensionMagic = 0x05644B45;

/// The 79 bytes that both variants begin with. Every field has a value of its own.
ByteBuilder fields(std::uint32_t magic, std::uint32_t flags = 0x00030003) {
    return ByteBuilder()
        .u32(magic)
        .u32(3)
        .u32(flags)
        .u64(0x0102030405060708)
        .u64(0x1112131415161718)
        .u64(0x2122232425262728)
        .u64(0x3132333435363738)
        .u32(0x41424344)
        .u64(0x5152535455565758)
        .u64(0x6162636465666768)
        .u64(0x7172737475767778)
        .u8(1)
        .text("\n \r\n")
        .u16(0x8182);
}

Bytes plainRecord(std::uint32_t flags = 0x00030003) {
    return fields(kPlainMagic, flags).fill(433, 0xA5).bytes();
}

Bytes extensionRecord(std::size_t hashSize) {
    return fields(kExtensionMagic)
        .u16(0x9192)
        .u16(0x9394)
        .u16(static_cast<std::uint16_t>(hashSize))
        .fill(hashSize, 0x77)
        .fill(427 - hashSize, 0xA5)
        .bytes();
}

Bytes with(Bytes bytes, std::size_t offset, Bytes const& patch) {
    std::copy(patch.begin(), patch.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return bytes;
}

void load(CVMDKSparseExtentHeader& header, Bytes const& record) {
    ScriptedStream stream(record);
    yx::CDataInStream in(&stream);
    header.load(in);
}

Bytes store(CVMDKSparseExtentHeader& header) {
    ScriptedStream stream;
    yx::CDataOutStream out(&stream);
    header.store(out);
    return stream.content();
}

Bytes reproduce(Bytes const& record) {
    CVMDKSparseExtentHeader header;
    load(header, record);
    return store(header);
}

TEST(SparseExtentHeader, NewHeaderHoldsZeros) {
    CVMDKSparseExtentHeader header;
    EXPECT_EQ(header.getVersion(), 0u);
    EXPECT_EQ(header.getFlags(), 0u);
    EXPECT_EQ(header.getCapacitySectors(), 0u);
    EXPECT_EQ(header.getGrainSizeSectors(), 0u);
    EXPECT_EQ(header.getDescriptorOffsetSectors(), 0u);
    EXPECT_EQ(header.getDescriptorSizeSectors(), 0u);
    EXPECT_EQ(header.getGrainTableEntryCount(), 0u);
    EXPECT_EQ(header.getRedundantGrainDirectoryOffsetSectors(), 0u);
    EXPECT_EQ(header.getGrainDirectoryOffsetSectors(), 0u);
    EXPECT_EQ(header.getOverheadSectors(), 0u);
    EXPECT_FALSE(header.getUncleanShutdown());
    EXPECT_EQ(header.getCompressAlgorithm(), 0);
    EXPECT_FALSE(header.getEncryptionExtensionEnabled());
    EXPECT_EQ(header.getEncryptionAlgorithm(), 0);
    EXPECT_EQ(header.getEncryptionKeyHashAlgorithm(), 0);
    EXPECT_EQ(header.getEncryptionKeyHash().getUsed(), 0);
    EXPECT_EQ(
        store(header),
        ByteBuilder().text("KDMV").zeros(69).append({0x0A, 0x20, 0x0D, 0x0A}).zeros(435).bytes());
}

TEST(SparseExtentHeader, FieldsLieAtTheirOffsets) {
    Bytes const record = plainRecord();
    ASSERT_EQ(record.size(), 512u);
    EXPECT_EQ(Bytes(record.begin(), record.begin() + 4), (Bytes{0x4B, 0x44, 0x4D, 0x56}));
    EXPECT_EQ(record[12], 0x08);
    EXPECT_EQ(record[44], 0x44);
    EXPECT_EQ(record[72], 1);
    EXPECT_EQ(record[77], 0x82);
    EXPECT_EQ(extensionRecord(0)[0], 0x45);
    EXPECT_EQ(extensionRecord(0)[3], 0x05);

    CVMDKSparseExtentHeader header;
    load(header, record);
    EXPECT_EQ(header.getVersion(), 3u);
    EXPECT_EQ(header.getFlags(), 0x00030003u);
    EXPECT_EQ(header.getCapacitySectors(), 0x0102030405060708u);
    EXPECT_EQ(header.getGrainSizeSectors(), 0x1112131415161718u);
    EXPECT_EQ(header.getDescriptorOffsetSectors(), 0x2122232425262728u);
    EXPECT_EQ(header.getDescriptorSizeSectors(), 0x3132333435363738u);
    EXPECT_EQ(header.getGrainTableEntryCount(), 0x41424344u);
    EXPECT_EQ(header.getRedundantGrainDirectoryOffsetSectors(), 0x5152535455565758u);
    EXPECT_EQ(header.getGrainDirectoryOffsetSectors(), 0x6162636465666768u);
    EXPECT_EQ(header.getOverheadSectors(), 0x7172737475767778u);
    EXPECT_TRUE(header.getUncleanShutdown());
    EXPECT_EQ(header.getCompressAlgorithm(), 0x8182);
    EXPECT_FALSE(header.getEncryptionExtensionEnabled());
}

TEST(SparseExtentHeader, SettersFillTheRecord) {
    CVMDKSparseExtentHeader header;
    header.setVersion(3);
    header.setFlags(0x00030003);
    header.setCapacitySectors(0x0102030405060708);
    header.setGrainSizeSectors(0x1112131415161718);
    header.setDescriptorOffsetSectors(0x2122232425262728);
    header.setDescriptorSizeSectors(0x3132333435363738);
    header.setGrainTableEntryCount(0x41424344);
    header.setRedundantGrainDirectoryOffsetSectors(0x5152535455565758);
    header.setGrainDirectoryOffsetSectors(0x6162636465666768);
    header.setOverheadSectors(0x7172737475767778);
    header.setUncleanShutdown(true);
    header.setCompressAlgorithm(0x8182);
    EXPECT_EQ(store(header), fields(kPlainMagic).zeros(433).bytes());

    header.setEncryptionExtensionEnabled(true);
    header.setEncryptionAlgorthm(0x9192);
    header.setEncryptionKeyHashAlgorthm(0x9394);
    header.setEncryptionKeyHash(toBuffer(Bytes(32, 0x77)));
    Bytes const expected =
        fields(kExtensionMagic).u16(0x9192).u16(0x9394).u16(32).fill(32, 0x77).zeros(395).bytes();
    ASSERT_EQ(expected.size(), 512u);
    EXPECT_EQ(store(header), expected);
}

TEST(SparseExtentHeader, LoadsTheEncryptionExtension) {
    CVMDKSparseExtentHeader header;
    load(header, extensionRecord(32));
    EXPECT_TRUE(header.getEncryptionExtensionEnabled());
    EXPECT_EQ(header.getEncryptionAlgorithm(), 0x9192);
    EXPECT_EQ(header.getEncryptionKeyHashAlgorithm(), 0x9394);
    EXPECT_EQ(toBytes(header.getEncryptionKeyHash()), Bytes(32, 0x77));
    EXPECT_EQ(header.getOverheadSectors(), 0x7172737475767778u);
}

TEST(SparseExtentHeader, LoadedRecordIsStoredByteForByte) {
    EXPECT_EQ(reproduce(plainRecord()), plainRecord());
    for (std::size_t const hashSize : {0u, 1u, 32u, 64u, 426u, 427u}) {
        ASSERT_EQ(extensionRecord(hashSize).size(), 512u);
        EXPECT_EQ(reproduce(extensionRecord(hashSize)), extensionRecord(hashSize)) << hashSize;
    }
}

TEST(SparseExtentHeader, WithoutItsFlagTheRedundantDirectoryLoadsAsZero) {
    Bytes const record = plainRecord(0x00030001);
    CVMDKSparseExtentHeader header;
    load(header, record);
    EXPECT_EQ(header.getRedundantGrainDirectoryOffsetSectors(), 0u);
    EXPECT_EQ(header.getGrainDirectoryOffsetSectors(), 0x6162636465666768u);
    EXPECT_EQ(store(header), with(record, 48, Bytes(8, 0)));
}

TEST(SparseExtentHeader, WithoutTheirFlagTheNewLineBytesAreIgnoredAndMended) {
    Bytes const record = plainRecord(0x00030002);
    EXPECT_EQ(reproduce(with(record, 73, {'\r', '\n', ' ', '\r'})), record);
}

TEST(SparseExtentHeader, ChangedNewLineBytesAreReported) {
    for (std::size_t offset = 73; offset < 77; ++offset) {
        CVMDKSparseExtentHeader header;
        EXPECT_TRUE(throwsIOError(
            yx::CIOError::CorruptData,
            "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).", {},
            [&] { load(header, with(plainRecord(), offset, {'x'})); }))
            << offset;
        // All fields before the bytes have been read, those behind have not.
        EXPECT_EQ(header.getOverheadSectors(), 0x7172737475767778u);
        EXPECT_EQ(header.getCompressAlgorithm(), 0);
    }
}

TEST(SparseExtentHeader, NewLineBytesAreJudgedBeforeTheKeyHash) {
    CVMDKSparseExtentHeader header;
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::CorruptData,
        "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).", {},
        [&] {
            load(header, with(with(extensionRecord(32), 73, {'x'}), 83, {0xFF, 0xFF}));
        }));
}

TEST(SparseExtentHeader, UnknownMagicIsReportedAsADecimalNumber) {
    struct Case {
        std::uint32_t magic;
        char const* num;
    };
    for (Case const& test : {Case{0, "0"}, Case{0x564D444A, "1447904330"},
                             Case{0xFFFFFFFF, "4294967295"}, Case{0x4B444D56, "1262767446"}}) {
        CVMDKSparseExtentHeader header;
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                                  "Invalid magic number in VMDK sparse header", {{"num", test.num}},
                                  [&] { load(header, fields(test.magic).zeros(433).bytes()); }));
    }
}

TEST(SparseExtentHeader, KeyHashThatExceedsTheRecordIsRefusedByLoad) {
    struct Case {
        Bytes size;
        char const* message;
    };
    for (Case const& test :
         {Case{{0xAC, 0x01}, "Invalid encryption key hash size in VMDK sparse header: 428"},
          Case{{0xFF, 0xFF}, "Invalid encryption key hash size in VMDK sparse header: 65535"}}) {
        CVMDKSparseExtentHeader header;
        EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData, test.message,
                                  {{"uri", "test:/stream"}},
                                  [&] { load(header, with(extensionRecord(32), 83, test.size)); }));
        EXPECT_EQ(header.getEncryptionKeyHash().getUsed(), 0);
    }
}

TEST(SparseExtentHeader, KeyHashThatExceedsTheRecordIsRefusedByStore) {
    CVMDKSparseExtentHeader header;
    header.setEncryptionKeyHash(toBuffer(Bytes(428, 0x77)));
    EXPECT_EQ(store(header).size(), 512u) << "the plain record holds no key hash";

    header.setEncryptionExtensionEnabled(true);
    ScriptedStream stream;
    yx::CDataOutStream out(&stream);
    EXPECT_TRUE(test_support::throwsError(
        "Internal error: encryption key hash is too long for VMDK sparse header: 428", {},
        [&] { header.store(out); }));
    EXPECT_EQ(stream.content().size(), 0u);
}

TEST(SparseExtentHeader, ChangeOfVariantKeepsPaddingAndAddsOnlyZeros) {
    CVMDKSparseExtentHeader header;
    load(header, plainRecord());
    header.setEncryptionExtensionEnabled(true);
    header.setEncryptionKeyHash(toBuffer(Bytes(32, 0x77)));
    Bytes const extended = store(header);
    EXPECT_EQ(extended,
              fields(kExtensionMagic).u16(0).u16(0).u16(32).fill(32, 0x77).fill(395, 0xA5).bytes());

    header.setEncryptionExtensionEnabled(false);
    EXPECT_EQ(store(header), fields(kPlainMagic).fill(395, 0xA5).zeros(38).bytes());

    load(header, extensionRecord(427));
    header.setEncryptionExtensionEnabled(false);
    EXPECT_EQ(store(header), fields(kPlainMagic).zeros(433).bytes());
}

TEST(SparseExtentHeader, AnyUncleanShutdownByteButZeroIsTrue) {
    Bytes const record = plainRecord();
    EXPECT_EQ(reproduce(with(record, 72, {0xFF})), record);
    EXPECT_EQ(reproduce(with(record, 72, {0})), with(record, 72, {0}));
}

TEST(SparseExtentHeader, LoadAndStoreWorkAtTheStreamsPosition) {
    Bytes const record = extensionRecord(32);
    ScriptedStream stream(ByteBuilder().fill(1000, 0xEE).append(record).bytes());
    stream.seek(1000);
    yx::CDataInStream in(&stream);
    CVMDKSparseExtentHeader header;
    header.load(in);
    EXPECT_EQ(stream.getPosition(), 1512);

    yx::CDataOutStream out(&stream);
    header.store(out);
    EXPECT_EQ(stream.getPosition(), 2024);
    EXPECT_EQ(stream.content(),
              ByteBuilder().fill(1000, 0xEE).append(record).append(record).bytes());
}

TEST(SparseExtentHeader, ShortStreamIsReportedByTheStream) {
    for (std::size_t size = 0; size < 512; ++size) {
        Bytes record = extensionRecord(32);
        record.resize(size);
        CVMDKSparseExtentHeader header;
        try {
            load(header, record);
            ADD_FAILURE() << "loaded " << size << " bytes";
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), yx::CIOError::UnexpectedEnd) << size;
        }
    }
}

TEST(SparseExtentHeader, CopiesHoldBuffersOfTheirOwn) {
    CVMDKSparseExtentHeader header;
    load(header, extensionRecord(32));
    CVMDKSparseExtentHeader copy(header);
    CVMDKSparseExtentHeader assigned;
    assigned = header;
    load(header, plainRecord());
    EXPECT_EQ(store(copy), extensionRecord(32));
    EXPECT_EQ(store(assigned), extensionRecord(32));
}

/// Loads anything: an error of the family, or a header whose record is stable from then on.
void loadAndStore(Bytes const& record) {
    CVMDKSparseExtentHeader header;
    try {
        load(header, record);
    } catch (yx::CError const& error) {
        error.nop();
        return;
    }
    Bytes const stored = store(header);
    ASSERT_EQ(stored.size(), 512u);
    ASSERT_EQ(reproduce(stored), stored);
}

TEST(SparseExtentHeader, NoBytesDoWorseThanAnError) {
    constexpr unsigned int kSeed = 20240611;
    SCOPED_TRACE(kSeed);
    std::mt19937 random(kSeed);
    Bytes const records[] = {plainRecord(), extensionRecord(32)};
    for (int i = 0; i < 100000; ++i) {
        Bytes record = records[random() % 2];
        int const changes = static_cast<int>(random() % 8);
        for (int change = 0; change < changes; ++change)
            record[random() % 128] = static_cast<unsigned char>(random());
        if (random() % 16 == 0)
            record.resize(random() % 512);
        if (random() % 16 == 0)
            std::generate(record.begin(), record.end(),
                          [&] { return static_cast<unsigned char>(random()); });
        loadAndStore(record);
        if (testing::Test::HasFatalFailure())
            return;
    }
}

TEST(SparseExtentHeader, IsEncryptedIfItsExtensionNamesAnAlgorithm) {
    CVMDKSparseExtentHeader header;
    EXPECT_FALSE(header.isEncrypted());
    header.setEncryptionAlgorthm(1);
    EXPECT_FALSE(header.isEncrypted());
    header.setEncryptionExtensionEnabled(true);
    EXPECT_TRUE(header.isEncrypted());
    header.setEncryptionAlgorthm(77);
    EXPECT_TRUE(header.isEncrypted());
    header.setEncryptionAlgorthm(0);
    EXPECT_FALSE(header.isEncrypted());
}

TEST(SparseExtentHeader, IsCompressedByItsFlagAlone) {
    CVMDKSparseExtentHeader header;
    header.setCompressAlgorithm(1);
    header.setFlags(0xFFFEFFFF);
    EXPECT_FALSE(header.isCompressed());
    header.setCompressAlgorithm(0);
    header.setFlags(0x00010000);
    EXPECT_TRUE(header.isCompressed());
}

} // namespace

} // namespace sparse_extent_header_test
