#include "kelm/format/descriptor_accessor.h"

#include <set>

#include <gtest/gtest.h>

#include "tests/support/byte_builder.h"
#include "tests/support/expect_error.h"
#include "tests/support/scripted_stream.h"
#include "yx/mt_rand.h"

namespace descriptor_accessor_test {

namespace {

using kelm::CVMDKDescriptorAccessor;
using test_support::ByteBuilder;
using test_support::Bytes;
using test_support::fromText;
using test_support::Props;
using test_support::sameBytes;
using test_support::ScriptedStream;
using test_support::throwsError;
using test_support::throwsIOError;
using Access = yx::IIOStream::Access;

Props const kURI = {{"uri", "test:/stream"}};

constexpr std::uint32_t kPlainMagic = 0x564D444B;
constexpr std::uint32_t kExtensionMagic = 0x05644B45;

struct Extent {
    std::uint32_t magic = kPlainMagic;
    std::uint32_t version = 1;
    std::uint64_t descriptorOffsetSectors = 1;
    std::uint64_t descriptorSizeSectors = 2;
};

/// The first sector of a sparse extent.
Bytes header(Extent const& extent) {
    return ByteBuilder()
        .u32(extent.magic)
        .u32(extent.version)
        .u32(3)
        .u64(1000)
        .u64(128)
        .u64(extent.descriptorOffsetSectors)
        .u64(extent.descriptorSizeSectors)
        .u32(512)
        .u64(3)
        .u64(8)
        .u64(128)
        .u8(0)
        .text("\n \r\n")
        .zeros(435)
        .bytes();
}

/// A sparse extent with a descriptor in sectors 1 and 2, and other content behind it.
Bytes extentFile(Extent const& extent, std::string const& text) {
    return ByteBuilder()
        .append(header(extent))
        .append(ByteBuilder().text(text).padTo(1024).bytes())
        .fill(1024, 0xEE)
        .bytes();
}

constexpr char kText[] = "encoding=\"UTF-8\"\nCID=12345678\nk=v\n";

void open(ScriptedStream& stream) {
    CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
}

TEST(DescriptorAccessor, FindsTheDescriptorInASparseExtent) {
    for (std::uint32_t const magic : {kPlainMagic, kExtensionMagic}) {
        for (std::uint32_t const version : {1u, 2u, 3u}) {
            ScriptedStream stream(extentFile({.magic = magic, .version = version}, kText));
            stream.seek(77);
            CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
            EXPECT_TRUE(accessor.getEmbeddedInSparseExtentFile());
            EXPECT_EQ(accessor.getDescriptor()->toString().toStdString(), kText);
            EXPECT_EQ(stream.getPosition(), 77);
            EXPECT_EQ(stream.operationsOf(ScriptedStream::Kind::Write).size(), 0u);
        }
    }
}

TEST(DescriptorAccessor, TakesAnyOtherFileAsTheText) {
    ScriptedStream stream(fromText(kText));
    stream.seek(5);
    CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
    EXPECT_FALSE(accessor.getEmbeddedInSparseExtentFile());
    EXPECT_EQ(accessor.getDescriptor()->toString().toStdString(), kText);
    EXPECT_EQ(stream.getPosition(), 5);
}

TEST(DescriptorAccessor, SharesTheDescriptor) {
    ScriptedStream stream(fromText(kText));
    CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
    EXPECT_EQ(accessor.getDescriptor(), accessor.getDescriptor());
}

TEST(DescriptorAccessor, TextMayBe5MiBLong) {
    std::string text = "CID=1\n" + std::string(5242880 - 6, '#');
    ScriptedStream stream(fromText(text));
    stream.seek(3);
    {
        CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
        EXPECT_EQ(accessor.getDescriptor()->getContentID(), 1u);
    }
    stream.content().push_back('#');
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "VMDK descriptor is too big (5242881 bytes).", kURI,
                              [&] { open(stream); }));
    EXPECT_EQ(stream.getPosition(), 3);
}

struct RefusedExtent {
    Extent extent;
    yx::CIOError::Code code;
    char const* message;
};

std::vector<RefusedExtent> const kRefusedExtents = {
    {{.version = 0}, yx::CIOError::UnsupportedVersion, "VMDK file has an unsupported version: 0"},
    {{.version = 4}, yx::CIOError::UnsupportedVersion, "VMDK file has an unsupported version: 4"},
    {{.version = 0xFFFFFFFF},
     yx::CIOError::UnsupportedVersion,
     "VMDK file has an unsupported version: 4294967295"},
    // The version is judged before the place of the descriptor.
    {{.version = 4, .descriptorOffsetSectors = 0},
     yx::CIOError::UnsupportedVersion,
     "VMDK file has an unsupported version: 4"},
    {{.descriptorOffsetSectors = 0},
     yx::CIOError::CorruptData,
     "No VMDK descriptor found in VMDK file."},
    {{.descriptorOffsetSectors = 0, .descriptorSizeSectors = 0},
     yx::CIOError::CorruptData,
     "No VMDK descriptor found in VMDK file."},
    {{.descriptorSizeSectors = 0},
     yx::CIOError::CorruptData,
     "No VMDK descriptor found in VMDK file."},
    // Numbers that are below zero in bytes.
    {{.descriptorSizeSectors = 0xFFFFFFFFFFFFFFFF},
     yx::CIOError::CorruptData,
     "No VMDK descriptor found in VMDK file."},
    {{.descriptorOffsetSectors = 0x40000000000000},
     yx::CIOError::CorruptData,
     "No VMDK descriptor found in VMDK file."},
    // Numbers that would wrap around to a place in the file.
    {{.descriptorOffsetSectors = 0x80000000000001},
     yx::CIOError::CorruptData,
     "Invalid descriptor offset in VMDK sparse header: 36028797018963969"},
    {{.descriptorSizeSectors = 0x80000000000001},
     yx::CIOError::CorruptData,
     "Invalid descriptor size in VMDK sparse header: 36028797018963969"},
    {{.descriptorSizeSectors = 10241},
     yx::CIOError::CorruptData,
     "VMDK descriptor is too big (5243392 bytes)."},
    {{.descriptorSizeSectors = 0x3FFFFFFFFFFFFF},
     yx::CIOError::CorruptData,
     "VMDK descriptor is too big (9223372036854775296 bytes)."},
    {{.descriptorSizeSectors = 10240},
     yx::CIOError::CorruptData,
     "VMDK descriptor lies beyond the end of the file (offset: 512 bytes, size: 5242880 bytes)."},
    {{.descriptorOffsetSectors = 4},
     yx::CIOError::CorruptData,
     "VMDK descriptor lies beyond the end of the file (offset: 2048 bytes, size: 1024 bytes)."},
    {{.descriptorOffsetSectors = 0x3FFFFFFFFFFFFF},
     yx::CIOError::CorruptData,
     "VMDK descriptor lies beyond the end of the file (offset: 9223372036854775296 bytes, size: "
     "1024 bytes)."},
};

TEST(DescriptorAccessor, RefusesExtentsWithoutAUsableDescriptor) {
    for (RefusedExtent const& test : kRefusedExtents) {
        ScriptedStream stream(extentFile(test.extent, kText));
        stream.seek(99);
        EXPECT_TRUE(throwsIOError(test.code, test.message, kURI, [&] { open(stream); }));
        EXPECT_EQ(stream.getPosition(), 99) << test.message;
    }
}

TEST(DescriptorAccessor, AreaMayEndWithTheFile) {
    ScriptedStream stream(extentFile({.descriptorOffsetSectors = 3}, kText));
    CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
    EXPECT_TRUE(accessor.getEmbeddedInSparseExtentFile());
}

TEST(DescriptorAccessor, ErrorsOfTheHeaderPassThrough) {
    Bytes file = extentFile({}, kText);
    file[74] = '\n';
    ScriptedStream stream(file);
    stream.seek(1);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::CorruptData,
        "VMDK image is corrupted (probably by having been transferred in FTP ASCII mode).", {},
        [&] { open(stream); }));
    EXPECT_EQ(stream.getPosition(), 1);
}

TEST(DescriptorAccessor, FilesTooShortForAMagicNumberAreTheStreamsError) {
    for (std::size_t size = 0; size < 4; ++size) {
        ScriptedStream stream(Bytes(size, '#'));
        stream.seek(1);
        try {
            open(stream);
            ADD_FAILURE() << size;
        } catch (yx::CIOError const& error) {
            EXPECT_EQ(error.getIOCode(), yx::CIOError::UnexpectedEnd);
        }
        EXPECT_EQ(stream.getPosition(), 1);
    }
    ScriptedStream stream(fromText("#abc"));
    CVMDKDescriptorAccessor const accessor(&stream, Access::ReadOnly);
    EXPECT_EQ(accessor.getDescriptor()->toString(), "#abc\n");
}

TEST(DescriptorAccessor, EveryFailedReadLeavesThePosition) {
    Bytes const file = extentFile({}, kText);
    ScriptedStream counting(file);
    open(counting);
    std::size_t const reads = counting.operationsOf(ScriptedStream::Kind::Read).size();
    ASSERT_GT(reads, 2u);
    for (std::size_t failing = 0; failing < reads; ++failing) {
        ScriptedStream stream(file);
        std::size_t seen = 0;
        stream.setFault([&](ScriptedStream::Operation const& operation) {
            return operation.kind == ScriptedStream::Kind::Read && seen++ == failing;
        });
        stream.seek(1234);
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Scripted failure.", kURI,
                                  [&] { open(stream); }));
        EXPECT_EQ(stream.getPosition(), 1234);
    }
}

/// A stream that fails to read, and to seek once it has failed.
class StuckStream : public ScriptedStream {
public:
    using ScriptedStream::ScriptedStream;

    void read(void*, int) override {
        m_hasFailed = true;
        throw yx::CIOError(yx::CIOError::IOFailure, "first", yx::CProps(), nullptr);
    }

    void seek(__int64 position) override {
        if (m_hasFailed)
            throw yx::CIOError(yx::CIOError::IOFailure, "second", yx::CProps(), nullptr);
        ScriptedStream::seek(position);
    }

private:
    bool m_hasFailed = false;
};

TEST(DescriptorAccessor, FailureOfGoingBackHidesNoError) {
    StuckStream stream(fromText(kText));
    EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "first", {}, [&] { open(stream); }));
}

// Storing

TEST(DescriptorAccessor, StoresOverAllOfTheEmbeddedArea) {
    ScriptedStream stream(
        extentFile({}, "encoding=\"UTF-8\"\nCID=12345678\nk=" + std::string(500, 'v') + "\n"));
    CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
    accessor.getDescriptor()->setValue("k", "v", false, true);
    stream.seek(33);
    accessor.storeDescriptor(false);
    EXPECT_TRUE(sameBytes(extentFile({}, kText), stream.content()));
    EXPECT_EQ(stream.getPosition(), 33);
    EXPECT_EQ(stream.operationsOf(ScriptedStream::Kind::Flush).size(), 0u);
}

TEST(DescriptorAccessor, StoresOverAllOfTheTextFileAndKeepsItsLength) {
    ScriptedStream stream(fromText("encoding=\"UTF-8\"\nCID=12345678\nk=value\n"));
    CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
    accessor.getDescriptor()->setValue("k", "v", false, true);
    accessor.storeDescriptor(true);
    EXPECT_TRUE(sameBytes(ByteBuilder().text(kText).zeros(4).bytes(), stream.content()));
    EXPECT_EQ(stream.operationsOf(ScriptedStream::Kind::Flush).size(), 1u);
    EXPECT_EQ(stream.operations().back().kind, ScriptedStream::Kind::Flush);

    // What was cut off can come back, and no more.
    accessor.getDescriptor()->setValue("k", "other", false, true);
    accessor.storeDescriptor(false);
    EXPECT_EQ(stream.content().size(), 38u);
    accessor.getDescriptor()->setValue("k", "others", false, true);
    stream.seek(12);
    EXPECT_TRUE(throwsError("Internal error: actual VMDK descriptor size exceeds target size "
                            "(actual size: 39, target size: 38",
                            {}, [&] { accessor.storeDescriptor(true); }));
    EXPECT_EQ(stream.getPosition(), 12);
    EXPECT_TRUE(
        sameBytes(fromText("encoding=\"UTF-8\"\nCID=12345678\nk=other\n"), stream.content()));
}

TEST(DescriptorAccessor, FailedStoreLeavesThePosition) {
    for (auto const kind : {ScriptedStream::Kind::Write, ScriptedStream::Kind::Flush}) {
        ScriptedStream stream(extentFile({}, kText));
        CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
        stream.failOnce(kind);
        stream.seek(12);
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure, "Scripted failure.", kURI,
                                  [&] { accessor.storeDescriptor(true); }));
        EXPECT_EQ(stream.getPosition(), 12);
    }
}

TEST(DescriptorAccessor, ChangesNothingWithoutWriteAccess) {
    for (auto const access : {Access::ReadOnly, static_cast<Access>(2)}) {
        ScriptedStream stream(extentFile({}, kText));
        CVMDKDescriptorAccessor accessor(&stream, access);
        EXPECT_TRUE(throwsError("Internal error: CVMDKDescriptorAccessor::storeDescriptor was "
                                "called, but the accessor was not opened for writing.",
                                {}, [&] { accessor.storeDescriptor(true); }));
        EXPECT_TRUE(throwsError("Internal error: CVMDKDescriptorAccessor::changeContentID was "
                                "called, but the accessor was not opened for writing.",
                                {}, [&] { accessor.changeContentID(); }));
        EXPECT_EQ(accessor.getDescriptor()->getContentID(), 0x12345678u);
        EXPECT_TRUE(sameBytes(extentFile({}, kText), stream.content()));
    }
}

TEST(DescriptorAccessor, NewContentIDsAreNewAndOfUse) {
    ScriptedStream stream(fromText(kText));
    CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
    std::set<unsigned int> seen = {0x12345678};
    unsigned int old = 0x12345678;
    for (int i = 0; i < 1000; ++i) {
        unsigned int const contentID = accessor.changeContentID();
        ASSERT_NE(contentID, 0u);
        ASSERT_NE(contentID, 0xFFFFFFFFu);
        ASSERT_NE(contentID, old);
        ASSERT_EQ(accessor.getDescriptor()->getContentID(), contentID);
        seen.insert(contentID);
        old = contentID;
    }
    EXPECT_GT(seen.size(), 990u) << "drawn at random";
    EXPECT_EQ(stream.operationsOf(ScriptedStream::Kind::Write).size(), 0u);
}

TEST(DescriptorAccessor, OldContentIDIsDrawnAgain) {
    ScriptedStream stream(fromText(kText));
    CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
    // A copy of the generator tells what it is about to draw.
    yx::CMTRand copy(*yx::CMTRand::getGlobal());
    unsigned int const first = copy.rand32();
    unsigned int const second = copy.rand32();
    accessor.getDescriptor()->setContentID(first);
    EXPECT_EQ(accessor.changeContentID(), second);
    EXPECT_EQ(accessor.getDescriptor()->getContentID(), second);
}

TEST(DescriptorAccessor, ContentIDIsNotChangedWhereThereIsNone) {
    ScriptedStream stream(fromText("k=v\n"));
    CVMDKDescriptorAccessor accessor(&stream, Access::ReadWrite);
    EXPECT_TRUE(throwsError("VMDK descriptor value 'CID' not found.", {},
                            [&] { accessor.changeContentID(); }));
}

} // namespace

} // namespace descriptor_accessor_test
