#include "host/disk/kept_file.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/temp_directory.h"
#include "yx/memory_file_system.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace kept_file_test {

namespace {

using kelm::host::FileLock;
using kelm::host::KeptFile;
using testing::ElementsAre;
using Kind = FileOperation::Kind;

class KeptFileTest : public testing::Test {
protected:
    static Bytes pattern(int size) {
        Bytes bytes;
        for (int i = 0; i < size; ++i)
            bytes.push_back(static_cast<unsigned char>(i % 251));
        return bytes;
    }

    static yx::P<yx::IIOStream> openFor(yx::IFileSystem& files, yx::CURI const& uri,
                                        yx::IIOStream::Access access) {
        unsigned int options = 0;
        return files.openFile(uri, access, &options);
    }

    /// The file, kept open for reading.
    yx::P<KeptFile> keep(int size) {
        memory->putFile(uri, toBuffer(pattern(size)));
        yx::P<KeptFile> file =
            yx::makeObject<KeptFile>(openFor(*files, uri, yx::IIOStream::ReadOnly));
        files->clear();
        return file;
    }

    static Bytes readFrom(yx::IIOStream& stream, __int64 position, std::size_t count) {
        Bytes bytes(count);
        stream.seek(position);
        stream.read(bytes.data(), static_cast<int>(count));
        return bytes;
    }

    static Bytes part(int position, int count) {
        Bytes const all = pattern(position + count);
        return {all.begin() + position, all.end()};
    }

    yx::CURI uri{"mem:///a.vmdk"};
    yx::P<yx::CMemoryFileSystem> memory = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<RecordingFileSystem> files = yx::makeObject<RecordingFileSystem>(memory.get());
};

TEST_F(KeptFileTest, TheStartIsReadOnceForAllStreams) {
    yx::P<KeptFile> const file = keep(100000);
    for (int round = 0; round < 2; ++round) {
        yx::P<yx::IIOStream> const stream = file->openStream();
        EXPECT_EQ(100000, stream->getLength());
        EXPECT_EQ(part(5, 100), readFrom(*stream, 5, 100));
        EXPECT_EQ(part(49000, 152), readFrom(*stream, 49000, 152));
    }
    EXPECT_THAT(files->lines({Kind::Read, Kind::GetLength}),
                ElementsAre("get-length a.vmdk", "read a.vmdk 0+49152"));
}

TEST_F(KeptFileTest, WhatLiesBehindTheStartIsRead) {
    yx::P<KeptFile> const file = keep(100000);
    yx::P<yx::IIOStream> const stream = file->openStream();
    EXPECT_EQ(part(49100, 1000), readFrom(*stream, 49100, 1000));
    EXPECT_EQ(part(90000, 10), readFrom(*stream, 90000, 10));
    EXPECT_THAT(
        files->lines({Kind::Read}),
        ElementsAre("read a.vmdk 0+49152", "read a.vmdk 49152+948", "read a.vmdk 90000+10"));
}

TEST_F(KeptFileTest, AShortFileIsReadAsAWhole) {
    yx::P<KeptFile> const file = keep(100);
    yx::P<yx::IIOStream> const stream = file->openStream();
    Bytes bytes(200);
    stream->seek(90);
    EXPECT_EQ(10, stream->readLax(bytes.data(), 200));
    EXPECT_EQ(100, stream->getPosition());
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", "mem:///a.vmdk"}, {"position", "95"}, {"bytesToRead", "6"}},
                              [&] { readFrom(*stream, 95, 6); }));
    EXPECT_EQ(95, stream->getPosition());
}

TEST_F(KeptFileTest, OnceTheStartIsForgottenEverythingIsAskedOfTheFile) {
    yx::P<KeptFile> const file = keep(1000);
    yx::P<yx::IIOStream> const stream = file->openStream();
    EXPECT_EQ(part(0, 10), readFrom(*stream, 0, 10));
    file->forgetStart();
    EXPECT_FALSE(file->keepsStart());
    files->clear();
    EXPECT_EQ(1000, stream->getLength());
    EXPECT_EQ(part(7, 10), readFrom(*stream, 7, 10));
    EXPECT_THAT(files->lines({Kind::Read, Kind::GetLength}),
                ElementsAre("get-length a.vmdk", "read a.vmdk 7+10"));
}

TEST_F(KeptFileTest, StreamsHavePositionsOfTheirOwn) {
    yx::P<KeptFile> const file = keep(100000);
    yx::P<yx::IIOStream> const first = file->openStream();
    yx::P<yx::IIOStream> const second = file->openStream();
    readFrom(*first, 60000, 10);
    EXPECT_EQ(60010, first->getPosition());
    EXPECT_EQ(0, second->getPosition());
    EXPECT_EQ(part(0, 10), readFrom(*second, 0, 10));
    EXPECT_EQ(60010, first->getPosition());
}

TEST_F(KeptFileTest, AStreamThatIsClosedLeavesTheFileOpen) {
    yx::P<KeptFile> const file = keep(1000);
    yx::P<yx::IIOStream> const closed = file->openStream();
    EXPECT_TRUE(file->isInUse());
    closed->close();
    closed->close();
    EXPECT_FALSE(file->isInUse());
    EXPECT_TRUE(throwsIOError(yx::CIOError::Closed, "The stream is closed.",
                              {{"uri", "mem:///a.vmdk"}}, [&] { closed->getLength(); }));
    EXPECT_EQ(part(0, 10), readFrom(*file->openStream(), 0, 10));
    EXPECT_EQ(0U, files->count({Kind::Open, Kind::Close}));
}

TEST_F(KeptFileTest, AStartThatCannotBeReadSpoilsNoByteThatCan) {
    memory->putFile(uri, toBuffer(pattern(100000)));
    auto const faulty = yx::makeObject<FaultyFileSystem>(memory.get());
    yx::P<KeptFile> const file =
        yx::makeObject<KeptFile>(openFor(*faulty, uri, yx::IIOStream::ReadOnly));
    faulty->add({.kinds = {Kind::Read}, .nth = 1});
    EXPECT_EQ(part(0, 10), readFrom(*file->openStream(), 0, 10));
    EXPECT_EQ(1, faulty->hits());
}

TEST_F(KeptFileTest, ALockOnItEndsAtItsTimeThoughAStreamIsOpen) {
    TempDirectory const folder;
    yx::P<yx::CNativeFileSystem> const native = yx::makeObject<yx::CNativeFileSystem>();
    yx::CURI const name = folder.uri("a.vmdk");
    openFor(*native, name, yx::IIOStream::ReadWrite)->close();
    std::string const path = yx::toNativePath(name).toStdString();
    yx::P<KeptFile> const file =
        yx::makeObject<KeptFile>(openFor(*native, name, yx::IIOStream::ReadOnly));
    yx::P<yx::IIOStream> const stream = file->openStream();
    {
        std::optional<FileLock> const lock = FileLock::tryTake(file, FileLock::Type::Shared);
        ASSERT_TRUE(lock && lock->isHeld());
        EXPECT_FALSE(FileLock::tryTake(path, FileLock::Type::Exclusive));
        EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Shared)->isHeld());
    }
    EXPECT_TRUE(FileLock::tryTake(path, FileLock::Type::Exclusive)->isHeld());
}

} // namespace

} // namespace kept_file_test
} // namespace test_support
