#include "host/disk/overlaid_stream.h"

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "yx/memory_file_system.h"

namespace test_support {
namespace {

using kelm::host::OverlaidStream;
using kelm::host::Overlay;

class OverlaidStreamTest : public testing::Test {
protected:
    OverlaidStreamTest() {
        files->putFile(uri, toBuffer(fromText("abcdefgh")));
        overlay->positionBytes = 2;
        overlay->bytes = fromText("XYZ");
    }

    yx::P<OverlaidStream> open() {
        unsigned int reserved = 0;
        return yx::makeObject<OverlaidStream>(
            files->openFile(uri, yx::IIOStream::ReadWrite, &reserved), overlay);
    }

    static std::string read(yx::IIOStream& stream, __int64 position, std::size_t count) {
        std::string text(count, '?');
        stream.seek(position);
        stream.read(text.data(), static_cast<int>(count));
        return text;
    }

    std::string content() { return toText(toBytes(files->getFile(uri))); }

    yx::CURI uri = yx::CURI("mem:///file");
    yx::P<yx::CMemoryFileSystem> files = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<Overlay> overlay = yx::makeObject<Overlay>();
};

TEST_F(OverlaidStreamTest, ShowsTheOverlayWhereverAReadMeetsIt) {
    yx::P<OverlaidStream> const stream = open();
    EXPECT_EQ("abXYZfgh", read(*stream, 0, 8));
    EXPECT_EQ("ab", read(*stream, 0, 2));
    EXPECT_EQ("fgh", read(*stream, 5, 3));
    EXPECT_EQ("bX", read(*stream, 1, 2));
    EXPECT_EQ("Y", read(*stream, 3, 1));
    EXPECT_EQ("Zf", read(*stream, 4, 2));
    EXPECT_EQ(6, stream->getPosition());
    EXPECT_EQ("abcdefgh", content());
}

TEST_F(OverlaidStreamTest, ShowsItToReadsThatMayBeShort) {
    yx::P<OverlaidStream> const stream = open();
    std::string text(8, '?');
    stream->seek(4);
    EXPECT_EQ(4, stream->readLax(text.data(), 8));
    EXPECT_EQ("Zfgh????", text);
    stream->seek(3);
    EXPECT_EQ(2, stream->readAvailable(text.data(), 2));
    EXPECT_EQ("YZgh????", text);
}

TEST_F(OverlaidStreamTest, WritesReachTheFileAndTheOverlayOfAllStreams) {
    yx::P<OverlaidStream> const stream = open();
    yx::P<OverlaidStream> const other = open();
    stream->seek(1);
    stream->write("12", 2, nullptr);
    EXPECT_EQ("a12defgh", content());
    EXPECT_EQ("a12YZfgh", read(*other, 0, 8));
    Buffer const bytes = toBuffer(fromText("456"));
    stream->seek(4);
    stream->writeKeepBuffer({&bytes, 0, 3}, nullptr);
    EXPECT_EQ("a12d456h", content());
    EXPECT_EQ("a12Y456h", read(*other, 0, 8));
}

} // namespace
} // namespace test_support
