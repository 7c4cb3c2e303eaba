#include <gmock/gmock.h>

#include "tests/support/disk_fixture.h"

namespace test_support {
namespace {

class DiskIOStream : public DiskTest {
protected:
    DiskIOStream() { create({}); }

    yx::P<kelm::CVMDKDiskIOStream> openStream(
        yx::IIOStream::Access access = yx::IIOStream::ReadWrite) {
        return yx::makeObject<kelm::CVMDKDiskIOStream>(files.get(), uriOf("disk.vmdk"), access, "");
    }

    static testing::AssertionResult isClosed(std::function<void()> const& operation) {
        return throwsIOError(yx::CIOError::Closed, "", Props{}, operation);
    }
};

TEST_F(DiskIOStream, ReadsAndWritesThroughTheDisksCursor) {
    yx::P<kelm::CVMDKDisk> const disk = open(yx::IIOStream::ReadWrite);
    kelm::CVMDKDiskIOStream stream(disk.get());
    stream.seek(100);
    stream.write("hello", 5, nullptr);
    EXPECT_EQ(105, disk->getPosition());
    Buffer const kept = toBuffer(fromText(" world"));
    stream.writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&kept, 0, 6), nullptr);
    stream.seek(100);
    Bytes back(11);
    stream.read(back.data(), 11);
    EXPECT_EQ("hello world", toText(back));
    EXPECT_EQ(111, stream.getPosition());
    EXPECT_EQ(kSmallestDiskBytes, stream.getLength());
    EXPECT_EQ(uriOf("disk.vmdk"), stream.getURI());
}

TEST_F(DiskIOStream, LaxReadsEndAtTheEnd) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    Bytes buffer(100);
    stream->seek(kSmallestDiskBytes - 40);
    EXPECT_FALSE(stream->isEndOfStream());
    EXPECT_EQ(0, stream->isEndOfStream_NonBlocking());
    EXPECT_EQ(40, stream->readLax(buffer.data(), 100));
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_EQ(1, stream->isEndOfStream_NonBlocking());
    EXPECT_EQ(0, stream->readAvailable(buffer.data(), 100));
    EXPECT_TRUE(stream->waitReadable(0));
    stream->seek(0);
    EXPECT_EQ(100, stream->readAvailable(buffer.data(), 100));
}

TEST_F(DiskIOStream, ExactReadPastTheEndIsTheDisksError) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    Bytes buffer(100);
    stream->seek(8388568);
    EXPECT_TRUE(throwsIOError(yx::CIOError::UnexpectedEnd, "Read exceeds VMDK disk size.",
                              Props{{"mainFileURI", "mem:///disks/disk.vmdk"},
                                    {"position", "8388568"},
                                    {"bytesToRead", "100"}},
                              [&] { stream->read(buffer.data(), 100); }));
    EXPECT_EQ(8388568, stream->getPosition());
}

TEST_F(DiskIOStream, BarrierFlushesAndOrdersNothing) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    stream->write("x", 1, nullptr);
    yx::P<yx::IWriteBarrier> const barrier = stream->createWriteBarrier(nullptr);
    EXPECT_TRUE(yx::cast<yx::CDummyWriteBarrier>(barrier));
    Buffer const file = files->getFile(uriOf("disk.vmdk"));
    EXPECT_EQ('x', file.getData()[65536]);
    stream->write("y", 1, barrier.get());
    stream->flush();
    EXPECT_EQ('y', files->getFile(uriOf("disk.vmdk")).getData()[65537]);
}

TEST_F(DiskIOStream, ClosedStreamRefuses) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    stream->close();
    stream->close();
    Bytes buffer(1);
    Buffer const kept = toBuffer(fromText("x"));
    EXPECT_TRUE(isClosed([&] { stream->getLength(); }));
    EXPECT_TRUE(isClosed([&] { stream->getPosition(); }));
    EXPECT_TRUE(isClosed([&] { stream->seek(0); }));
    EXPECT_TRUE(isClosed([&] { stream->read(buffer.data(), 1); }));
    EXPECT_TRUE(isClosed([&] { stream->readLax(buffer.data(), 1); }));
    EXPECT_TRUE(isClosed([&] { stream->readAvailable(buffer.data(), 1); }));
    EXPECT_TRUE(isClosed([&] { stream->waitReadable(0); }));
    EXPECT_TRUE(isClosed([&] { stream->isEndOfStream(); }));
    EXPECT_TRUE(isClosed([&] { stream->isEndOfStream_NonBlocking(); }));
    EXPECT_TRUE(isClosed([&] { stream->write("x", 1, nullptr); }));
    EXPECT_TRUE(isClosed([&] {
        stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&kept, 0, 1), nullptr);
    }));
    EXPECT_TRUE(isClosed([&] { stream->createWriteBarrier(nullptr); }));
    EXPECT_TRUE(isClosed([&] { stream->flush(); }));
    EXPECT_TRUE(isClosed([&] { stream->setLength(0); }));
    EXPECT_EQ(uriOf("disk.vmdk"), stream->getURI());
}

TEST_F(DiskIOStream, CloseEndsTheDiskOnlyForTheLastHolder) {
    yx::P<kelm::CVMDKDisk> disk = open(yx::IIOStream::ReadWrite);
    yx::P<kelm::CVMDKDiskIOStream> const stream =
        yx::makeObject<kelm::CVMDKDiskIOStream>(disk.get());
    stream->write("x", 1, nullptr);
    stream->close();
    EXPECT_THROW(open(), yx::CLockFileError);
    disk.reset();
    EXPECT_EQ("x", toText(readAt(*open(), 0, 1)));
}

TEST_F(DiskIOStream, SetLengthIsNeverSupported) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotSupported, "", Props{},
                              [&] { stream->setLength(kSmallestDiskBytes); }));
}

TEST_F(DiskIOStream, LockRangeIsNeverSupported) {
    yx::P<kelm::CVMDKDiskIOStream> const stream = openStream();
    for (int round = 0; round < 2; ++round) {
        try {
            stream->lockRange(0, 1, yx::IStreamBase::Shared);
            FAIL() << "a lock was given";
        } catch (yx::CFileSystemError const& error) {
            EXPECT_EQ(6, error.getProblem());
            ASSERT_NE(nullptr, error.getCause());
            EXPECT_EQ("VMDK Disk I/O stream does not support lockRange.",
                      error.getCause()->getMessage().toStdString());
            EXPECT_EQ("", error.getCause()->getDetail().toStdString());
            EXPECT_EQ(-1, error.getCause()->getCode());
        }
        stream->close(); // the second round is on a closed stream
    }
}

TEST_F(DiskIOStream, WriteToAReadOnlyDiskIsTheDisksError) {
    EXPECT_TRUE(throwsError("Internal error: CVMDKDisk::write was called, but the disk was not "
                            "opened for writing.",
                            Props{},
                            [&] { openStream(yx::IIOStream::ReadOnly)->write("x", 1, nullptr); }));
}

} // namespace
} // namespace test_support
