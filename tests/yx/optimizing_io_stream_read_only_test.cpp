// The buffering layer over streams that were opened for reading.

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/yx/file_system_fixture.h"
#include "yx/optimizing_io_stream.h"

namespace {

using test_support::fromText;
using test_support::throwsIOError;
using yx::CIOError;
using yx::COptimizingIOStream;
using yx::IIOStream;

template <class Backend>
class OptimizingIOStreamReadOnly : public FileSystemFixture<Backend> {
protected:
    void SetUp() override { this->make("a", fromText("content")); }
};

TYPED_TEST_SUITE(OptimizingIOStreamReadOnly, FileSystemBackends);

TYPED_TEST(OptimizingIOStreamReadOnly, RefusesEachWriteAtOnceAndShowsNothingOfIt) {
    test_support::IgnoredExceptionCapture const ignored;
    auto const inner =
        yx::makeObject<COptimizingIOStream>(this->open("a", IIOStream::ReadOnly).get());
    auto const outer = yx::makeObject<COptimizingIOStream>(inner.get());
    for (auto const& stream : {inner, outer}) {
        yx::TBuffer<unsigned char> buffer(100, -1);
        yx::initMemory(buffer.getData(), 7, 100);
        for (auto const& write : std::initializer_list<std::function<void()>>{
                 [&] { stream->write("x", 1, nullptr); }, [&] { stream->write("x", 0, nullptr); },
                 [&] {
                     stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 0, 100),
                                             nullptr);
                 }}) {
            EXPECT_TRUE(throwsIOError(CIOError::NotAllowed, "The file is open for reading only.",
                                      {{"uri", this->text("a")}}, write));
        }
        EXPECT_EQ(stream->getPosition(), 0);
        EXPECT_EQ(stream->getLength(), 7);
        EXPECT_EQ(test_support::toText(test_support::readAt(*stream, 0, 7)), "content");
        stream->seek(0);
    }
    outer->flush();
    outer->close();
    EXPECT_TRUE(ignored.entries().empty());
}

TYPED_TEST(OptimizingIOStreamReadOnly, TellsWhatTheFileWasOpenedFor) {
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        auto const stream = yx::makeObject<COptimizingIOStream>(this->open("a", access).get());
        EXPECT_EQ(stream->getAccess(), access);
        stream->close();
        EXPECT_EQ(stream->getAccess(), access);
    }
}

} // namespace
