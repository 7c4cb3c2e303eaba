// What all file systems of the framework have in common, on each of them.

#include <algorithm>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/bytes.h"
#include "tests/support/expect_error.h"
#include "tests/yx/file_system_fixture.h"
#include "yx/gather_out_stream.h"

namespace file_system_test {

namespace {

using test_support::Bytes;
using test_support::concat;
using test_support::fromText;
using test_support::pattern;
using test_support::Props;
using test_support::readAt;
using test_support::readFile;
using test_support::sameBytes;
using test_support::throwsInvalidArg;
using test_support::throwsIOError;
using test_support::writeAt;
using test_support::zeros;
using yx::CIOError;
using yx::IIOStream;
using yx::IStreamBase;

template <class Backend>
class FileSystem : public FileSystemFixture<Backend> {};

TYPED_TEST_SUITE(FileSystem, FileSystemBackends);

TYPED_TEST(FileSystem, OpeningAMissingFileForReadingIsNotFound) {
    EXPECT_TRUE(throwsIOError(CIOError::NotFound, "Cannot open the file: No such file or directory",
                              {{"uri", this->text("a")}},
                              [&] { this->open("a", IIOStream::ReadOnly); }));
    EXPECT_FALSE(this->files().fileExists(this->backend.uri("a")));
}

TYPED_TEST(FileSystem, OpeningForWritingMakesAnEmptyFile) {
    auto const stream = this->open("a", IIOStream::ReadWrite);
    EXPECT_EQ(stream->getLength(), 0);
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_TRUE(stream->isEndOfStream());
    EXPECT_TRUE(this->files().fileExists(this->backend.uri("a")));
}

TYPED_TEST(FileSystem, OpeningForWritingMakesNoFileWhereThatIsAskedFor) {
    auto const openWith = [this](char const* name, IIOStream::Access access) {
        unsigned int options = yx::IFileSystem::DoNotMakeFile;
        return this->files().openFile(this->backend.uri(name), access, &options);
    };
    this->make("a", fromText("content"));
    for (IIOStream::Access const access : {IIOStream::ReadOnly, IIOStream::ReadWrite}) {
        EXPECT_EQ(openWith("a", access)->getLength(), 7);
        EXPECT_TRUE(throwsIOError(CIOError::NotFound,
                                  "Cannot open the file: No such file or directory",
                                  {{"uri", this->text("b")}}, [&] { openWith("b", access); }));
    }
    EXPECT_FALSE(this->files().fileExists(this->backend.uri("b")));
}

TYPED_TEST(FileSystem, OpeningForWritingKeepsTheContent) {
    this->make("a", fromText("content"));
    auto const stream = this->open("a", IIOStream::ReadWrite);
    EXPECT_EQ(stream->getLength(), 7);
    EXPECT_EQ(stream->getPosition(), 0);
    EXPECT_TRUE(sameBytes(fromText("content"), readAt(*stream, 0, 100)));
}

TYPED_TEST(FileSystem, AFolderCannotBeMade) {
    yx::CURI const folder(this->backend.uri("folder").toString(true) + "/");
    unsigned int reserved = 0;
    EXPECT_TRUE(throwsIOError(CIOError::AccessDenied, "Cannot open the file: Is a directory",
                              {{"uri", this->text("folder") + "/"}}, [&] {
                                  this->files().openFile(folder, IIOStream::ReadWrite, &reserved);
                              }));
    EXPECT_FALSE(this->files().fileExists(folder));
}

TYPED_TEST(FileSystem, TheStreamNamesItsFileAsGiven) {
    yx::CURI const spelling(this->backend.uri("x").getParent().toString(true) + "./y/../a");
    this->make("a", fromText("1"));
    this->backend.makeFolder("y");
    unsigned int reserved = 0;
    auto const stream = this->files().openFile(spelling, IIOStream::ReadOnly, &reserved);
    EXPECT_EQ(stream->getURI(), spelling);
    EXPECT_TRUE(sameBytes(fromText("1"), readAt(*stream, 0, 9)));
}

TYPED_TEST(FileSystem, NamesMayHoldAnyCharacter) {
    for (std::string const name : {"a b.vmdk", "100%.vmdk", "#1?.vmdk", "\xC3\xA4\xE6\xBC\xA2"}) {
        this->make(name, fromText(name));
        EXPECT_TRUE(sameBytes(fromText(name), readFile(this->files(), this->backend.uri(name))));
    }
}

TYPED_TEST(FileSystem, TransfersMoveThePosition) {
    auto const stream = this->open("a", IIOStream::ReadWrite);
    stream->write("abcdef", 6, nullptr);
    EXPECT_EQ(stream->getPosition(), 6);
    stream->seek(1);
    char read[3] = {};
    stream->read(read, 2);
    EXPECT_STREQ(read, "bc");
    EXPECT_EQ(stream->getPosition(), 3);
    EXPECT_EQ(stream->readLax(read, 1), 1);
    EXPECT_EQ(read[0], 'd');
    EXPECT_EQ(stream->readAvailable(read, 1), 1);
    EXPECT_EQ(read[0], 'e');
    EXPECT_EQ(stream->getPosition(), 5);
    yx::TBuffer<unsigned char> const buffer = test_support::toBuffer(fromText("XYZ"));
    stream->writeKeepBuffer(yx::TConstBufferSlice<unsigned char>(&buffer, 1, 2), nullptr);
    EXPECT_EQ(stream->getPosition(), 7);
    EXPECT_TRUE(sameBytes(fromText("abcdeYZ"), readAt(*stream, 0, 100)));
}

TYPED_TEST(FileSystem, LargeTransfersAreWhole) {
    Bytes const content = pattern(3 * 1024 * 1024 + 17, 1);
    auto const stream = this->make("a", concat({zeros(65536 * 2 - 5), content}));
    EXPECT_TRUE(sameBytes(content, readAt(*stream, 65536 * 2 - 5, content.size())));
}

TYPED_TEST(FileSystem, ATransferOfNothingDoesNothing) {
    auto const stream = this->make("a", fromText("abc"));
    stream->seek(100);
    stream->write(nullptr, 0, nullptr);
    stream->read(nullptr, 0);
    EXPECT_EQ(stream->readLax(nullptr, 0), 0);
    EXPECT_EQ(stream->getPosition(), 100);
    EXPECT_EQ(stream->getLength(), 3);
}

TYPED_TEST(FileSystem, AWritePastTheEndFillsTheGapWithZeros) {
    auto const stream = this->make("a", fromText("abc"));
    writeAt(*stream, 200000, fromText("xyz"));
    EXPECT_EQ(stream->getLength(), 200003);
    EXPECT_TRUE(sameBytes(concat({fromText("abc"), zeros(199997), fromText("xyz")}),
                          readAt(*stream, 0, 300000)));
}

TYPED_TEST(FileSystem, AReadThatIsShortOfDataFailsAndStaysWhereItIs) {
    auto const stream = this->make("a", fromText("abc"));
    stream->seek(1);
    char target[9];
    EXPECT_TRUE(throwsIOError(CIOError::UnexpectedEnd, "Unexpected end of the stream.",
                              {{"uri", this->text("a")}, {"position", "1"}, {"bytesToRead", "3"}},
                              [&] { stream->read(target, 3); }));
    EXPECT_EQ(stream->getPosition(), 1);
    EXPECT_EQ(stream->readLax(target, 9), 2);
    EXPECT_EQ(stream->getPosition(), 3);
    EXPECT_EQ(stream->readLax(target, 9), 0);
    stream->seek(std::numeric_limits<long long>::max());
    EXPECT_EQ(stream->readLax(target, 9), 0);
}

TYPED_TEST(FileSystem, TellsWhereTheEndIs) {
    auto const stream = this->make("a", fromText("abc"));
    for (auto const& [position, atEnd] :
         std::vector<std::pair<long long, bool>>{{0, false}, {2, false}, {3, true}, {4, true}}) {
        stream->seek(position);
        EXPECT_EQ(stream->isEndOfStream(), atEnd) << position;
        EXPECT_EQ(stream->isEndOfStream_NonBlocking(), atEnd ? 1 : 0) << position;
        EXPECT_EQ(stream->waitReadable(0), !atEnd) << position;
    }
}

TYPED_TEST(FileSystem, ANegativePositionIsRefused) {
    auto const stream = this->make("a", fromText("abc"));
    stream->seek(2);
    EXPECT_TRUE(throwsIOError(CIOError::BadPosition, "Invalid stream position: -1",
                              {{"uri", this->text("a")}, {"position", "-1"}},
                              [&] { stream->seek(-1); }));
    EXPECT_EQ(stream->getPosition(), 2);
}

TYPED_TEST(FileSystem, ANegativeSizeIsRefused) {
    auto const stream = this->make("a", fromText("abc"));
    std::string const name = TypeParam::kStreamClass;
    char target[1];
    EXPECT_TRUE(
        throwsInvalidArg(name + "::read", "Invalid size: -1", [&] { stream->read(target, -1); }));
    EXPECT_TRUE(throwsInvalidArg(name + "::readLax", "Invalid size: -1",
                                 [&] { stream->readLax(target, -1); }));
    EXPECT_TRUE(throwsInvalidArg(name + "::write", "Invalid size: -1",
                                 [&] { stream->write(target, -1, nullptr); }));
}

TYPED_TEST(FileSystem, NoStreamIsLongerThanItsPositionsCanTell) {
    auto const stream = this->make("a", fromText("abc"));
    stream->seek(9223372036854775806);
    EXPECT_TRUE(throwsIOError(
        CIOError::NoSpace, "The stream cannot become that long.",
        {{"uri", this->text("a")}, {"position", "9223372036854775806"}, {"bytesToWrite", "2"}},
        [&] { stream->write("xy", 2, nullptr); }));
    EXPECT_EQ(stream->getLength(), 3);
    EXPECT_EQ(stream->getPosition(), 9223372036854775806);
}

TYPED_TEST(FileSystem, SetLengthCutsAndExtendsWithZerosAndLeavesThePosition) {
    auto const stream = this->make("a", pattern(200000, 2));
    stream->seek(150000);
    stream->setLength(70000);
    EXPECT_EQ(stream->getLength(), 70000);
    EXPECT_EQ(stream->getPosition(), 150000);
    stream->setLength(200000);
    EXPECT_EQ(stream->getLength(), 200000);
    Bytes expected = pattern(200000, 2);
    std::fill(expected.begin() + 70000, expected.end(), static_cast<unsigned char>(0));
    EXPECT_TRUE(sameBytes(expected, readAt(*stream, 0, 300000)));
    stream->setLength(0);
    EXPECT_EQ(stream->getLength(), 0);
}

TYPED_TEST(FileSystem, SetLengthToAChunkBoundaryKeepsWhatIsBelow) {
    auto const stream = this->make("a", pattern(131072, 3));
    stream->setLength(65536);
    stream->setLength(131072);
    Bytes expected = pattern(131072, 3);
    std::fill(expected.begin() + 65536, expected.end(), static_cast<unsigned char>(0));
    EXPECT_TRUE(sameBytes(expected, readAt(*stream, 0, 131072)));
}

TYPED_TEST(FileSystem, ANegativeLengthIsRefused) {
    auto const stream = this->make("a", fromText("abc"));
    EXPECT_TRUE(throwsIOError(CIOError::BadPosition, "Invalid stream length: -5",
                              {{"uri", this->text("a")}, {"length", "-5"}},
                              [&] { stream->setLength(-5); }));
    EXPECT_EQ(stream->getLength(), 3);
}

TYPED_TEST(FileSystem, LengthAloneTakesNoSpace) {
    constexpr long long kLength = TypeParam::kLongLengthBytes;
    auto const stream = this->make("a", fromText("abc"));
    stream->setLength(kLength);
    writeAt(*stream, kLength / 2, fromText("middle"));
    EXPECT_TRUE(sameBytes(concat({zeros(10), fromText("middle"), zeros(10)}),
                          readAt(*stream, kLength / 2 - 10, 26)));
    EXPECT_EQ(stream->getLength(), kLength);
}

TYPED_TEST(FileSystem, AStreamOpenForReadingRefusesChanges) {
    this->make("a", fromText("abc"));
    auto const stream = this->open("a", IIOStream::ReadOnly);
    std::string const message = "The file is open for reading only.";
    Props const props{{"uri", this->text("a")}};
    EXPECT_TRUE(throwsIOError(CIOError::NotAllowed, message, props,
                              [&] { stream->write("x", 1, nullptr); }));
    EXPECT_TRUE(throwsIOError(CIOError::NotAllowed, message, props, [&] { stream->setLength(0); }));
    auto& gather = dynamic_cast<yx::IGatherOutStream&>(*stream);
    yx::IGatherOutStream::Piece const piece{"x", 1};
    EXPECT_TRUE(throwsIOError(CIOError::NotAllowed, message, props,
                              [&] { gather.writePieces(0, &piece, 1); }));
    EXPECT_TRUE(throwsIOError(CIOError::NotAllowed, message, props,
                              [&] { stream->lockRange(0, 1, IStreamBase::Exclusive); }));
    stream->flush();
    EXPECT_TRUE(sameBytes(fromText("abc"), readAt(*stream, 0, 9)));
}

TYPED_TEST(FileSystem, AClosedStreamRefusesAllButItsNameAndClose) {
    auto const stream = this->make("a", fromText("abc"));
    stream->close();
    char target[1];
    yx::TBuffer<unsigned char> const buffer(1, -1);
    yx::TConstBufferSlice<unsigned char> const slice(&buffer, 0, 1);
    yx::IGatherOutStream::Piece const piece{"x", 1};
    std::vector<std::pair<char const*, std::function<void()>>> const operations{
        {"getLength", [&] { stream->getLength(); }},
        {"getPosition", [&] { stream->getPosition(); }},
        {"seek", [&] { stream->seek(-1); }},
        {"lockRange", [&] { stream->lockRange(-1, 1, IStreamBase::Shared); }},
        {"read", [&] { stream->read(target, -1); }},
        {"readLax", [&] { stream->readLax(target, 1); }},
        {"readAvailable", [&] { stream->readAvailable(target, 1); }},
        {"waitReadable", [&] { stream->waitReadable(0); }},
        {"isEndOfStream", [&] { stream->isEndOfStream(); }},
        {"isEndOfStream_NonBlocking", [&] { stream->isEndOfStream_NonBlocking(); }},
        {"write", [&] { stream->write(target, -1, nullptr); }},
        {"writeKeepBuffer", [&] { stream->writeKeepBuffer(slice, nullptr); }},
        {"createWriteBarrier", [&] { stream->createWriteBarrier(nullptr); }},
        {"flush", [&] { stream->flush(); }},
        {"setLength", [&] { stream->setLength(-1); }},
        {"writePieces",
         [&] { dynamic_cast<yx::IGatherOutStream&>(*stream).writePieces(-1, &piece, 1); }},
    };
    for (auto const& [name, operation] : operations) {
        EXPECT_TRUE(throwsIOError(CIOError::Closed, "The stream is closed.",
                                  {{"uri", this->text("a")}}, operation))
            << name;
    }
    EXPECT_EQ(stream->getURI(), this->backend.uri("a"));
    stream->close();
}

TYPED_TEST(FileSystem, PiecesAreWrittenBehindEachOtherAndLeaveThePosition) {
    auto const stream = this->make("a", fromText("abc"));
    stream->seek(1);
    Bytes const bytes = pattern(200 * 333, 4);
    std::vector<yx::IGatherOutStream::Piece> pieces;
    for (std::size_t i = 0; i < 200; ++i)
        pieces.push_back({bytes.data() + i * 333, 333});
    auto& gather = dynamic_cast<yx::IGatherOutStream&>(*stream);
    gather.writePieces(70000, pieces.data(), static_cast<int>(pieces.size()));
    EXPECT_EQ(stream->getPosition(), 1);
    EXPECT_TRUE(
        sameBytes(concat({fromText("abc"), zeros(69997), bytes}), readAt(*stream, 0, 200000)));
}

TYPED_TEST(FileSystem, PiecesPastTheLargestPositionAreRefused) {
    auto const stream = this->make("a", fromText("abc"));
    auto& gather = dynamic_cast<yx::IGatherOutStream&>(*stream);
    yx::IGatherOutStream::Piece const pieces[] = {{"xx", 2}, {"yy", 2}};
    EXPECT_TRUE(throwsIOError(CIOError::BadPosition, "Invalid stream position: -1",
                              {{"uri", this->text("a")}, {"position", "-1"}},
                              [&] { gather.writePieces(-1, pieces, 2); }));
    EXPECT_TRUE(throwsIOError(
        CIOError::NoSpace, "The stream cannot become that long.",
        {{"uri", this->text("a")}, {"position", "9223372036854775804"}, {"bytesToWrite", "4"}},
        [&] { gather.writePieces(9223372036854775804, pieces, 2); }));
    EXPECT_EQ(stream->getLength(), 3);
}

TYPED_TEST(FileSystem, StreamsOfOneFileSeeEachOthersWritesAtOnce) {
    auto const writer = this->open("a", IIOStream::ReadWrite);
    auto const reader = this->open("a", IIOStream::ReadOnly);
    writer->write("abc", 3, nullptr);
    EXPECT_EQ(reader->getLength(), 3);
    EXPECT_EQ(reader->getPosition(), 0);
    EXPECT_TRUE(sameBytes(fromText("abc"), readAt(*reader, 0, 9)));
}

TYPED_TEST(FileSystem, BarriersAreGivenOut) {
    auto const stream = this->open("a", IIOStream::ReadWrite);
    auto const first = stream->createWriteBarrier(nullptr);
    auto const second = stream->createWriteBarrier(first.get());
    ASSERT_TRUE(second);
    stream->write("abc", 3, second.get());
    EXPECT_EQ(stream->getLength(), 3);
}

TYPED_TEST(FileSystem, FlushKeepsWhatWasWritten) {
    auto const stream = this->make("a", fromText("abc"));
    stream->flush();
    stream->flush();
    stream->setLength(2);
    stream->flush();
    EXPECT_TRUE(sameBytes(fromText("ab"), readFile(this->files(), this->backend.uri("a"))));
}

TYPED_TEST(FileSystem, DeletesFiles) {
    this->make("a", fromText("abc"));
    this->files().deleteFile(this->backend.uri("a"), false);
    EXPECT_FALSE(this->files().fileExists(this->backend.uri("a")));
    EXPECT_TRUE(throwsIOError(CIOError::NotFound,
                              "Cannot delete the file: No such file or directory",
                              {{"uri", this->text("a")}},
                              [&] { this->files().deleteFile(this->backend.uri("a"), false); }));
    this->files().deleteFile(this->backend.uri("a"), true);
}

TYPED_TEST(FileSystem, AnOpenFileOutlivesItsName) {
    auto const old = this->make("a", fromText("old"));
    this->files().deleteFile(this->backend.uri("a"), false);
    auto const fresh = this->make("a", fromText("new!"));
    writeAt(*old, 3, fromText("er"));
    old->flush();
    EXPECT_TRUE(sameBytes(fromText("older"), readAt(*old, 0, 9)));
    EXPECT_TRUE(sameBytes(fromText("new!"), readAt(*fresh, 0, 9)));
}

} // namespace

} // namespace file_system_test
