#include "host/check/block_reader.h"

#include <algorithm>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/recording_file_system.h"
#include "yx/memory_file_system.h"

namespace test_support {
namespace block_reader_test {

namespace {

using kelm::host::BlockReader;
using testing::ElementsAre;
using Kind = FileOperation::Kind;

constexpr int kBlock = BlockReader::kBlockBytes;

class BlockReaderTest : public testing::Test {
protected:
    void SetUp() override {
        Bytes content;
        for (int i = 0; i < kFileBytes; ++i)
            content.push_back(static_cast<unsigned char>(i % 251));
        memory->putFile(uri, toBuffer(content));
    }

    static yx::P<yx::IIOStream> open(yx::IFileSystem& files, yx::CURI const& uri) {
        unsigned int options = 0;
        return files.openFile(uri, yx::IIOStream::ReadOnly, &options);
    }

    /// The first byte of a piece that is as it should be; -1 if it is not.
    static int readPiece(BlockReader& reader, int position, int size) {
        Bytes bytes(static_cast<std::size_t>(size));
        reader.read(position, bytes.data(), size);
        for (int i = 0; i < size; ++i) {
            if (bytes[static_cast<std::size_t>(i)] != (position + i) % 251)
                return -1;
        }
        return bytes[0];
    }

    static constexpr int kFileBytes = 8 * kBlock + 1000;

    yx::CURI uri{"mem:///a.vmdk"};
    yx::P<yx::CMemoryFileSystem> memory = yx::makeObject<yx::CMemoryFileSystem>();
};

TEST_F(BlockReaderTest, PiecesOfABlockTakeOneRequest) {
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    BlockReader reader(*open(*files, uri));
    for (int position : {512, 100000, 5, kBlock - 512})
        EXPECT_EQ(position % 251, readPiece(reader, position, 512));
    EXPECT_THAT(files->lines({Kind::Read}), ElementsAre("read a.vmdk 0+262144"));
}

TEST_F(BlockReaderTest, BlocksInOrderAreReadFourAtATime) {
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    BlockReader reader(*open(*files, uri));
    for (int position = 0; position + 512 <= kFileBytes; position += 50 * 512)
        EXPECT_EQ(position % 251, readPiece(reader, position, 512));
    EXPECT_THAT(files->lines({Kind::Read}),
                ElementsAre("read a.vmdk 0+262144", "read a.vmdk 262144+1048576",
                            "read a.vmdk 1310720+1048576"));
}

TEST_F(BlockReaderTest, SeveralSequencesStandSideBySide) {
    auto const files = yx::makeObject<RecordingFileSystem>(memory.get());
    BlockReader reader(*open(*files, uri));
    for (int step = 0; step < 10; ++step) {
        for (int const block : {0, 2, 4, 6})
            EXPECT_NE(-1, readPiece(reader, block * kBlock + step * 2048, 2048));
    }
    EXPECT_EQ(4U, files->count({Kind::Read}));
}

TEST_F(BlockReaderTest, APieceAcrossBlocksAndALargeOneAreRead) {
    BlockReader reader(*open(*memory, uri));
    EXPECT_NE(-1, readPiece(reader, kBlock - 100, 512));
    EXPECT_NE(-1, readPiece(reader, 1000, 3 * kBlock));
    EXPECT_NE(-1, readPiece(reader, 8 * kBlock, 1000));
}

TEST_F(BlockReaderTest, TheEndOfTheFileIsAnErrorForThePieceAlone) {
    BlockReader reader(*open(*memory, uri));
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", "mem:///a.vmdk"},
                               {"position", std::to_string(8 * kBlock)},
                               {"bytesToRead", "1001"}},
                              [&] { readPiece(reader, 8 * kBlock, 1001); }));
    EXPECT_NE(-1, readPiece(reader, 8 * kBlock, 1000));
}

TEST_F(BlockReaderTest, WhatCannotBeReadSpoilsNothingBesideItAndIsTriedOnce) {
    auto const files = yx::makeObject<RecordingFileSystem>(
        yx::makeObject<HookedFileSystem>(
            memory.get(),
            [](FileOperation& operation, HookedFileSystem::Proceed const& proceed) {
                bool const isBad = operation.kind == Kind::Read && operation.position < 70000 &&
                                   operation.position + operation.length > 69632;
                if (isBad)
                    throw yx::CIOError(yx::CIOError::IOFailure, "Bad.", yx::CProps(), nullptr);
                proceed();
            })
            .get());
    BlockReader reader(*open(*files, uri));
    EXPECT_NE(-1, readPiece(reader, 512, 512));
    EXPECT_NE(-1, readPiece(reader, 200000, 512));
    EXPECT_TRUE(
        throwsIOError(yx::CIOError::IOFailure, "Bad.", {}, [&] { readPiece(reader, 69632, 512); }));
    EXPECT_NE(-1, readPiece(reader, kBlock, 512));
    std::vector<std::string> const large = files->lines({Kind::Read});
    EXPECT_EQ(1, std::count(large.begin(), large.end(), "read a.vmdk 0+262144 failed"));
}

} // namespace

} // namespace block_reader_test
} // namespace test_support
