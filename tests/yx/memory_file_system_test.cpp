#include "yx/memory_file_system.h"

#include <algorithm>
#include <functional>
#include <random>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"

namespace memory_file_system_test {

namespace {

using test_support::Bytes;
using test_support::fromText;
using test_support::pattern;
using test_support::readAt;
using test_support::sameBytes;
using test_support::throwsIOError;
using test_support::toBuffer;
using test_support::writeAt;
using yx::CIOError;
using yx::CURI;
using yx::IIOStream;

class MemoryFileSystem : public testing::Test {
protected:
    yx::P<IIOStream> open(CURI const& uri, IIOStream::Access access = IIOStream::ReadWrite) {
        unsigned int reserved = 0;
        return files->openFile(uri, access, &reserved);
    }

    std::vector<std::string> list() {
        std::vector<std::string> texts;
        for (CURI const& uri : files->listFiles())
            texts.push_back(uri.toString(true).toStdString());
        return texts;
    }

    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
};

TEST_F(MemoryFileSystem, PutFileAndGetFileCopyTheContent) {
    yx::TBuffer<unsigned char> content = toBuffer(pattern(100000, 1));
    files->putFile(CURI("mem:/a"), content);
    content.getData()[0] = 0;
    yx::TBuffer<unsigned char> copy = files->getFile(CURI("mem:/a"));
    EXPECT_TRUE(sameBytes(pattern(100000, 1), copy));
    copy.getData()[0] = 0;
    EXPECT_TRUE(sameBytes(pattern(100000, 1), files->getFile(CURI("mem:/a"))));
}

TEST_F(MemoryFileSystem, PutFileKeepsZerosAtTheEndAndEmptyContent) {
    files->putFile(CURI("mem:/a"), toBuffer(test_support::zeros(70000)));
    EXPECT_TRUE(sameBytes(test_support::zeros(70000), files->getFile(CURI("mem:/a"))));
    files->putFile(CURI("mem:/a"), toBuffer({}));
    EXPECT_TRUE(sameBytes(Bytes(), files->getFile(CURI("mem:/a"))));
}

TEST_F(MemoryFileSystem, GetFileSeesWhatStreamsWrote) {
    writeAt(*open(CURI("mem:/a")), 2, fromText("abc"));
    EXPECT_TRUE(sameBytes(test_support::fromHex("00 00 61 62 63"), files->getFile(CURI("mem:/a"))));
}

TEST_F(MemoryFileSystem, GetFileOfAMissingFileIsNotFound) {
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot open the file: No such file or directory",
                              {{"uri", "mem:/a"}}, [&] { files->getFile(CURI("mem:/a")); }));
}

TEST_F(MemoryFileSystem, GetFileOfWhatNoBufferCanHoldIsRefused) {
    open(CURI("mem:/a"))->setLength(0x80000000LL);
    EXPECT_TRUE(
        throwsIOError(CIOError::NoSpace, "The stream cannot become that long.",
                      {{"uri", "mem:/a"}, {"position", "0"}, {"bytesToWrite", "2147483648"}},
                      [&] { files->getFile(CURI("mem:/a")); }));
}

TEST_F(MemoryFileSystem, OpenStreamsOfAReplacedFileKeepTheOldContent) {
    auto const stream = open(CURI("mem:/a"));
    writeAt(*stream, 0, fromText("old"));
    files->putFile(CURI("mem:/a"), toBuffer(fromText("new!")));
    EXPECT_TRUE(sameBytes(fromText("old"), readAt(*stream, 0, 9)));
    EXPECT_TRUE(sameBytes(fromText("new!"), files->getFile(CURI("mem:/a"))));
}

TEST_F(MemoryFileSystem, SpellingsThatAreEqualWhenNormalisedNameOneFile) {
    files->putFile(CURI("FILE:///disks//x/../a%62.vmdk"), toBuffer(fromText("1")));
    EXPECT_TRUE(files->fileExists(CURI("file:///disks/ab.vmdk")));
    EXPECT_TRUE(sameBytes(fromText("1"), files->getFile(CURI("file:/disks/./ab.vmdk"))));
    EXPECT_THAT(list(), testing::ElementsAre("file:///disks/ab.vmdk"));
    files->deleteFile(CURI("file:///disks/y/../ab.vmdk"), false);
    EXPECT_THAT(list(), testing::IsEmpty());
}

TEST_F(MemoryFileSystem, ListFilesIsInURIOrder) {
    for (char const* uri : {"mem:/b", "file:///z", "mem:/a/b", "mem:/a", "mem://host/a", "mem:/B"})
        files->putFile(CURI(uri), toBuffer({}));
    EXPECT_THAT(list(), testing::ElementsAre("file:///z", "mem://host/a", "mem:/B", "mem:/a",
                                             "mem:/a/b", "mem:/b"));
}

TEST_F(MemoryFileSystem, ARelativeURINamesNoFile) {
    CURI const uri("disks/a");
    for (std::function<void()> const& operation : std::vector<std::function<void()>>{
             [&] { open(uri); }, [&] { files->fileExists(uri); },
             [&] { files->deleteFile(uri, true); }, [&] { files->putFile(uri, toBuffer({})); },
             [&] { files->getFile(uri); }}) {
        EXPECT_TRUE(throwsIOError(CIOError::NotSupported,
                                  "The URI of a file in memory must be absolute.",
                                  {{"uri", "disks/a"}}, operation));
    }
}

TEST_F(MemoryFileSystem, AFolderCannotBePut) {
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: Is a directory",
                              {{"uri", "mem:/a/"}},
                              [&] { files->putFile(CURI("mem:/a/"), toBuffer({})); }));
}

TEST_F(MemoryFileSystem, StreamsOutliveTheFileSystem) {
    auto const stream = open(CURI("mem:/a"));
    files.reset();
    writeAt(*stream, 0, fromText("abc"));
    EXPECT_TRUE(sameBytes(fromText("abc"), readAt(*stream, 0, 9)));
}

TEST_F(MemoryFileSystem, ServesSeveralThreadsWithAStreamEach) {
    constexpr std::size_t kRecordBytes = 1000;
    constexpr unsigned int kRecords = 200;
    std::vector<std::thread> threads;
    for (unsigned int thread = 0; thread < 4; ++thread) {
        threads.emplace_back([this, thread] {
            auto const stream = open(CURI("mem:/a"));
            for (unsigned int i = 0; i < kRecords; ++i)
                writeAt(*stream, (i * 4LL + thread) * kRecordBytes, pattern(kRecordBytes, thread));
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    Bytes expected;
    for (unsigned int i = 0; i < kRecords; ++i) {
        for (unsigned int thread = 0; thread < 4; ++thread) {
            Bytes const record = pattern(kRecordBytes, thread);
            expected.insert(expected.end(), record.begin(), record.end());
        }
    }
    EXPECT_TRUE(sameBytes(expected, files->getFile(CURI("mem:/a"))));
}

/// Every operation at random places, compared with a plain vector; finds mistakes at the borders of
/// chunks.
TEST_F(MemoryFileSystem, BehavesLikeAPlainSequenceOfBytes) {
    unsigned int const seed = 20240229;
    SCOPED_TRACE(seed);
    std::mt19937 random(seed);
    auto const stream = open(CURI("mem:/a"));
    Bytes model;
    for (int i = 0; i < 2000; ++i) {
        std::size_t const position = random() % 4 == 0 ? (random() % 5) * 65536 : random() % 300000;
        std::size_t const size = random() % 3 == 0 ? random() % 150000 : random() % 10;
        switch (random() % 4) {
        case 0:
            stream->setLength(static_cast<long long>(position));
            model.resize(position);
            break;
        case 1:
        case 2: {
            auto const value = static_cast<unsigned char>(random() % 4 * 50);
            Bytes const bytes(size, value);
            writeAt(*stream, static_cast<long long>(position), bytes);
            if (size > 0 && model.size() < position + size)
                model.resize(position + size);
            std::copy(bytes.begin(), bytes.end(),
                      model.begin() + static_cast<std::ptrdiff_t>(size > 0 ? position : 0));
            break;
        }
        default:
            ASSERT_TRUE(sameBytes(test_support::slice(model, position, size),
                                  readAt(*stream, static_cast<long long>(position), size)));
        }
        ASSERT_EQ(stream->getLength(), static_cast<long long>(model.size()));
    }
    EXPECT_TRUE(sameBytes(model, files->getFile(CURI("mem:/a"))));
}

} // namespace

} // namespace memory_file_system_test
