#include "kelm/extent/low_level_file_stream.h"

#include "tests/extent/extent_fixture.h"
#include "tests/support/faulty_file_system.h"

namespace extent_test {

namespace {

using test_support::FileOperation;

/// Notes what the third argument of an opening points to.
class ReservedArgumentProbe : public yx::CBase, public virtual yx::IFileSystem {
public:
    explicit ReservedArgumentProbe(yx::IFileSystem* files) : m_files(files) {}

    yx::P<IIOStream> openFile(yx::CURI const& uri, IIOStream::Access access,
                              unsigned int* reserved) override {
        values.push_back(reserved ? static_cast<int>(*reserved) : -1);
        return m_files->openFile(uri, access, reserved);
    }

    bool fileExists(yx::CURI const& uri) override { return m_files->fileExists(uri); }
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override {
        m_files->deleteFile(uri, ignoreMissing);
    }

    std::vector<int> values;

private:
    yx::P<yx::IFileSystem> m_files;
};

class LowLevelFileStream : public ExtentTest {};

TEST_F(LowLevelFileStream, MissingFileFailsForReadingAndIsMadeForWriting) {
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::NotFound,
        [&] {
            // The words are the file system's own.
            try {
                memory->openFile(uri, IIOStream::ReadOnly, nullptr);
            } catch (yx::CIOError const& error) {
                return error.getMessage().toStdString();
            }
            return std::string();
        }(),
        {{"uri", kExtentURI}},
        [&] { kelm::openVMDKFileStream(files.get(), uri, IIOStream::ReadOnly); }));
    EXPECT_FALSE(memory->fileExists(uri));
    kelm::openVMDKFileStream(files.get(), uri, IIOStream::ReadWrite);
    EXPECT_TRUE(memory->fileExists(uri));
    EXPECT_EQ(content(), Bytes());
}

TEST_F(LowLevelFileStream, CopiesShareWhatTheyWorkOn) {
    kelm::CVMDKLowLevelFileStream first(files.get(), uri, IIOStream::ReadWrite);
    first.write("abc", 3, nullptr);
    {
        kelm::CVMDKLowLevelFileStream second(first);
        EXPECT_EQ(second.getPosition(), 3);
        second.write("def", 3, nullptr);
        EXPECT_EQ(first.getPosition(), 6);
    }
    first.write("ghi", 3, nullptr);
    kelm::CVMDKLowLevelFileStream third(first);
    third.close();
    EXPECT_EQ(content(), test_support::fromText("abcdefghi"));
    EXPECT_THROW(first.seek(0), yx::CIOError);
}

TEST_F(LowLevelFileStream, AssignmentFirstWritesWhatWasHeldBack) {
    yx::CURI const otherURI("mem:///d/other");
    kelm::CVMDKLowLevelFileStream stream(files.get(), uri, IIOStream::ReadWrite);
    stream.write("abc", 3, nullptr);
    kelm::CVMDKLowLevelFileStream const other(files.get(), otherURI, IIOStream::ReadWrite);
    stream = other;
    EXPECT_EQ(content(), test_support::fromText("abc"));
    stream.write("other", 5, nullptr);
    stream.flush();
    EXPECT_EQ(test_support::toBytes(memory->getFile(otherURI)), test_support::fromText("other"));
    EXPECT_EQ(content(), test_support::fromText("abc"));
}

TEST_F(LowLevelFileStream, TellsTheURIThatItWasOpenedWith) {
    yx::CURI const odd("mem:/d/x/../extent.vmdk");
    EXPECT_EQ(
        kelm::openVMDKFileStream(files.get(), odd, IIOStream::ReadWrite)->getURI().toString(true),
        memory->openFile(odd, IIOStream::ReadWrite, nullptr)->getURI().toString(true));
    EXPECT_EQ(kelm::openVMDKFileStream(files.get(), uri, IIOStream::ReadWrite)->getURI(), uri);
}

TEST_F(LowLevelFileStream, OpensOnceWithAReservedValueOfZero) {
    auto const probe = yx::makeObject<ReservedArgumentProbe>(memory.get());
    kelm::openVMDKFileStream(probe.get(), uri, IIOStream::ReadWrite);
    EXPECT_EQ(probe->values, (std::vector<int>{0}));
}

TEST_F(LowLevelFileStream, BuffersSmallWritesUntilFlush) {
    yx::P<IIOStream> const stream =
        kelm::openVMDKFileStream(files.get(), uri, IIOStream::ReadWrite);
    stream->write("abc", 3, nullptr);
    stream->write("def", 3, nullptr);
    EXPECT_EQ(content(), Bytes());
    stream->flush();
    EXPECT_EQ(content(), fromText("abcdef"));
    EXPECT_EQ(files->lines(test_support::kChanges),
              (std::vector<std::string>{"write extent.vmdk 0+6", "flush extent.vmdk"}));
}

TEST_F(LowLevelFileStream, IsAnAlignedStreamWithoutDemands) {
    auto const stream =
        yx::makeObject<kelm::CVMDKLowLevelFileStream>(files.get(), uri, IIOStream::ReadWrite);
    EXPECT_EQ(stream->getPositionAlign(), 1);
    EXPECT_EQ(stream->getBufferAlign(), 1);
    EXPECT_EQ(stream->getBestPerformancePositionAlign(), 4096);
}

TEST_F(LowLevelFileStream, CloseWritesBackAndReportsAFailure) {
    auto const faulty = yx::makeObject<test_support::FaultyFileSystem>(memory.get());
    yx::P<IIOStream> const stream =
        kelm::openVMDKFileStream(faulty.get(), uri, IIOStream::ReadWrite);
    stream->write("abc", 3, nullptr);
    faulty->add({.kinds = {FileOperation::Kind::Write}, .code = yx::CIOError::NoSpace});
    EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Injected failure.", {{"uri", kExtentURI}},
                              [&] { stream->close(); }));
    stream->close();
    EXPECT_EQ(content(), fromText("abc"));
    try {
        stream->getLength();
        ADD_FAILURE() << "the stream is still open";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(error.getIOCode(), yx::CIOError::Closed);
    }
}

TEST_F(LowLevelFileStream, LastReleaseClosesTheFile) {
    yx::P<IIOStream> stream = kelm::openVMDKFileStream(files.get(), uri, IIOStream::ReadWrite);
    stream->write("abc", 3, nullptr);
    stream.reset();
    EXPECT_EQ(content(), fromText("abc"));
    EXPECT_EQ(files->lines({FileOperation::Kind::Close}),
              (std::vector<std::string>{"close extent.vmdk"}));
}

} // namespace

} // namespace extent_test
