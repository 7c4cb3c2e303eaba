#include "host/disk/sealed_file_system.h"

#include <gtest/gtest.h>

#include "kelm/kelm.h"
#include "tests/support/byte_builder.h"
#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "yx/memory_file_system.h"

namespace {

using kelm::host::SealedFileSystem;
using test_support::Bytes;

class SealedFileSystemTest : public testing::Test {
protected:
    Bytes stored() { return test_support::toBytes(files->getFile(uri)); }

    /// The first sector of the file itself.
    Bytes storedStart() {
        Bytes bytes = stored();
        bytes.resize(512);
        return bytes;
    }

    yx::P<yx::IIOStream> open(yx::IIOStream::Access access = yx::IIOStream::ReadWrite) {
        return sealed->openFile(uri, access, nullptr);
    }

    static Bytes pattern(int size) {
        Bytes bytes;
        for (int i = 0; i < size; ++i)
            bytes.push_back(static_cast<unsigned char>(i % 251 + 1));
        return bytes;
    }

    static Bytes readAll(yx::IIOStream& stream) {
        Bytes bytes(static_cast<std::size_t>(stream.getLength()));
        stream.seek(0);
        stream.read(bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }

    static void write(yx::IIOStream& stream, __int64 position, Bytes const& bytes) {
        stream.seek(position);
        stream.write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    yx::CURI uri{"mem:///a.vmdk"};
    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<SealedFileSystem> sealed = yx::makeObject<SealedFileSystem>(files.get(), uri);
};

TEST_F(SealedFileSystemTest, TheFirstSectorReadsAsWrittenAndIsNotInTheFile) {
    Bytes const content = pattern(1500);
    yx::P<yx::IIOStream> const stream = open();
    write(*stream, 0, content);
    EXPECT_EQ(1500, stream->getPosition());
    EXPECT_EQ(content, readAll(*stream));
    EXPECT_EQ(content, readAll(*open(yx::IIOStream::ReadOnly)));

    Bytes expected = content;
    std::fill(expected.begin(), expected.begin() + 512, 0);
    EXPECT_EQ(expected, stored());
}

TEST_F(SealedFileSystemTest, TheReleaseBringsItIntoTheFile) {
    Bytes const content = pattern(1500);
    yx::P<yx::IIOStream> const stream = open();
    write(*stream, 0, content);
    sealed->unseal();
    EXPECT_EQ(content, stored());
    EXPECT_EQ(content, readAll(*stream));
    write(*stream, 10, {0xFF});
    EXPECT_EQ(0xFF, stored()[10]);
    sealed->unseal();
    EXPECT_EQ(0xFF, stored()[10]);
}

TEST_F(SealedFileSystemTest, WritesAreHeldAtEveryEdgeOfTheSector) {
    struct Case {
        __int64 position;
        int size;
    };
    for (Case const& write : {Case{0, 1}, Case{0, 512}, Case{511, 1}, Case{511, 2}, Case{512, 1},
                              Case{100, 1000}, Case{513, 4}, Case{0, 0}}) {
        SCOPED_TRACE(std::to_string(write.position) + ", " + std::to_string(write.size));
        files->deleteFile(uri, true);
        sealed = yx::makeObject<SealedFileSystem>(files.get(), uri);
        yx::P<yx::IIOStream> const stream = open();
        Bytes expected = pattern(2000);
        SealedFileSystemTest::write(*stream, 0, expected);
        Bytes const change(static_cast<std::size_t>(write.size), 0xEE);
        SealedFileSystemTest::write(*stream, write.position, change);
        std::copy(change.begin(), change.end(), expected.begin() + write.position);
        EXPECT_EQ(write.position + write.size, stream->getPosition());
        EXPECT_EQ(expected, readAll(*stream));
        EXPECT_EQ(Bytes(512, 0), storedStart());
        sealed->unseal();
        EXPECT_EQ(expected, stored());
    }
}

TEST_F(SealedFileSystemTest, WritesThatKeepTheBufferAreHeldToo) {
    Bytes const content = pattern(1500);
    yx::P<yx::IIOStream> const stream = open();
    yx::TBuffer<unsigned char> const buffer = test_support::toBuffer(content);
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 1500), nullptr);
    EXPECT_EQ(content, readAll(*stream));
    EXPECT_EQ(Bytes(512, 0), storedStart());
}

TEST_F(SealedFileSystemTest, ReadsOfAllKindsSeeTheSector) {
    Bytes const content = pattern(600);
    yx::P<yx::IIOStream> const stream = open();
    write(*stream, 0, content);
    Bytes target(700);
    stream->seek(500);
    EXPECT_EQ(100, stream->readLax(target.data(), 700));
    EXPECT_EQ(Bytes(content.begin() + 500, content.end()),
              Bytes(target.begin(), target.begin() + 100));
    stream->seek(0);
    int const count = stream->readAvailable(target.data(), 700);
    EXPECT_EQ(600, count);
    EXPECT_EQ(content, Bytes(target.begin(), target.begin() + 600));
}

TEST_F(SealedFileSystemTest, ASectorThatIsCutOffIsForgotten) {
    yx::P<yx::IIOStream> const stream = open();
    write(*stream, 0, pattern(600));
    stream->setLength(100);
    stream->setLength(600);
    Bytes expected = pattern(600);
    std::fill(expected.begin() + 100, expected.end(), 0);
    EXPECT_EQ(expected, readAll(*stream));
    sealed->unseal();
    EXPECT_EQ(expected, stored());
}

TEST_F(SealedFileSystemTest, AFileShorterThanASectorKeepsItsLength) {
    write(*open(), 0, pattern(100));
    sealed->unseal();
    EXPECT_EQ(pattern(100), stored());
}

TEST_F(SealedFileSystemTest, AFileThatWasDeletedIsForgotten) {
    write(*open(), 0, pattern(600));
    sealed->deleteFile(uri, false);
    write(*open(), 0, Bytes(10, 1));
    EXPECT_EQ(Bytes(10, 1), readAll(*open()));
    sealed->deleteFile(uri, false);
    sealed->unseal();
    EXPECT_FALSE(files->fileExists(uri));
}

TEST_F(SealedFileSystemTest, OtherFilesAreNotSealed) {
    yx::CURI const other("mem:///b.vmdk");
    yx::P<yx::IIOStream> const stream = sealed->openFile(other, yx::IIOStream::ReadWrite, nullptr);
    write(*stream, 0, pattern(600));
    EXPECT_EQ(pattern(600), test_support::toBytes(files->getFile(other)));
    EXPECT_TRUE(sealed->fileExists(other));
}

TEST_F(SealedFileSystemTest, AReleaseThatFailsLeavesTheFileSealed) {
    auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(files.get());
    sealed = yx::makeObject<SealedFileSystem>(faulty.get(), uri);
    yx::P<yx::IIOStream> const stream = open();
    write(*stream, 0, pattern(600));
    faulty->add({.kinds = {test_support::FileOperation::Kind::Write},
                 .nth = 1,
                 .code = yx::CIOError::NoSpace});
    EXPECT_TRUE(test_support::throwsIOError(yx::CIOError::NoSpace, "Injected failure.",
                                            {{"uri", "mem:///a.vmdk"}},
                                            [this] { sealed->unseal(); }));
    EXPECT_EQ(Bytes(512, 0), storedStart());
    EXPECT_EQ(pattern(600), readAll(*stream));
    sealed->unseal();
    EXPECT_EQ(pattern(600), stored());
}

TEST_F(SealedFileSystemTest, ADiskThatIsSealedIsNoDiskToAnybodyElse) {
    for (__int64 const fileSizeLimit : {__int64{-1}, __int64{4} << 20}) {
        files->deleteFile(uri, true);
        sealed = yx::makeObject<SealedFileSystem>(files.get(), uri);
        kelm::CVMDKDisk::create(sealed.get(), uri, 8 << 20, "", false, -1, fileSizeLimit, "",
                                0xFFFFFFFF, false);
        EXPECT_THROW(
            kelm::CVMDKDisk(files.get(), uri, yx::IIOStream::ReadOnly, "", -1, nullptr, nullptr),
            yx::CError);
        EXPECT_TRUE(kelm::host::isSealedFile(files.get(), uri));
        sealed->unseal();
        EXPECT_FALSE(kelm::host::isSealedFile(files.get(), uri));
        kelm::CVMDKDisk disk(files.get(), uri, yx::IIOStream::ReadOnly, "", -1, nullptr, nullptr);
        EXPECT_EQ(8 << 20, disk.getSizeBytes());
    }
}

TEST_F(SealedFileSystemTest, AFileThatWasNotUnsealedIsKnownByItsFirstSector) {
    EXPECT_FALSE(kelm::host::isSealedFile(files.get(), uri));
    write(*open(), 0, {});
    EXPECT_TRUE(kelm::host::isSealedFile(files.get(), uri));
    write(*open(), 0, Bytes(1500, 'x'));
    EXPECT_TRUE(kelm::host::isSealedFile(files.get(), uri));
    for (int const zeros : {1, 511, 512}) {
        Bytes content(static_cast<std::size_t>(zeros), 0);
        files->putFile(uri, test_support::toBuffer(content));
        EXPECT_TRUE(kelm::host::isSealedFile(files.get(), uri)) << zeros;
        content.push_back('x');
        files->putFile(uri, test_support::toBuffer(content));
        EXPECT_EQ(zeros == 512, kelm::host::isSealedFile(files.get(), uri)) << zeros;
    }
}

TEST_F(SealedFileSystemTest, ARawImageThatBeginsWithZerosIsNoSealedFile) {
    // Where file systems and volumes that leave the first sector free begin to say what they are, and
    // where the directories of a disk are.
    for (int const place : {1024, 4086, 32768, 65536, 131071}) {
        Bytes content(200000, 0);
        content[static_cast<std::size_t>(place)] = 'x';
        files->putFile(uri, test_support::toBuffer(content));
        EXPECT_FALSE(kelm::host::isSealedFile(files.get(), uri)) << place;
    }
    Bytes volume(200000, 0);
    volume[512] = 'L';
    volume[540] = 1;
    files->putFile(uri, test_support::toBuffer(volume));
    EXPECT_FALSE(kelm::host::isSealedFile(files.get(), uri));
    Bytes directories(200000, 0);
    directories[std::size_t{66} * 512] = 1;
    files->putFile(uri, test_support::toBuffer(directories));
    EXPECT_TRUE(kelm::host::isSealedFile(files.get(), uri));
}

} // namespace
