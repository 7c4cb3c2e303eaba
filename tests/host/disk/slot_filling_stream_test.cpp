#include "host/disk/slot_filling_stream.h"

#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/slot_sizes.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace slot_filling_stream_test {

namespace {

using kelm::host::SlotFillingStream;

constexpr char kDisk[] = "disk.vmdk";

/// How many grains the disks hold.
constexpr int kStored = 8;

/// Of a compressed disk of 8 MiB in one file, which has one table, from the grain directory on.
constexpr __int64 kTableSector = 2;
constexpr __int64 kSlotDirectoryMarkerSector = 6;
constexpr __int64 kSlotDirectorySector = 7;
constexpr __int64 kSlotTableSector = 9;

class SlotFillingStreamTest : public HostTest {
protected:
    /// Makes a disk with data in some grains, closes it and returns its content.
    Bytes makeDisk(DiskKind const& kind, yx::CURI const& uri) {
        Bytes const content = padded(mixedContent(), kSmallestDiskBytes);
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(system(uri), false);
        guard->keep();
        std::unique_ptr<SafeDisk> const disk = SafeDisk::create(guard.get(), uri, requestFor(kind));
        writeTo(*disk, 0, content);
        disk->markComplete();
        return content;
    }

    yx::IFileSystem* system(yx::CURI const& uri) {
        return uri.getScheme() == "file" ? static_cast<yx::IFileSystem*>(native.get())
                                         : files.get();
    }

    /// Returns how many grains have lost the size of their slot.
    int loseAllSlotSizes(yx::CURI const& uri, char const* password = "") {
        std::vector<kelm::host::DiskExtent> const extents =
            SafeDisk(system(uri), uri, kReadOnly, password).listExtents();
        int count = 0;
        for (kelm::host::DiskExtent const& extent : extents) {
            if (system(uri)->fileExists(extent.uri))
                count += loseSlotSizes(system(uri), extent.uri);
        }
        return count;
    }

    Bytes readAll(yx::CURI const& uri, char const* password) {
        SafeDisk disk(system(uri), uri, kReadOnly, password);
        return readFrom(disk, 0, static_cast<std::size_t>(disk.getSizeBytes()));
    }

    yx::P<yx::IIOStream> openRaw() {
        unsigned int reserved = 0;
        return files->openFile(uriOf(kDisk), kReadOnly, &reserved);
    }

    __int64 positionOf(__int64 sectorFromDirectory) {
        kelm::CVMDKSparseExtentHeader header;
        yx::P<yx::IIOStream> const stream = openRaw();
        yx::CDataInStream in(stream.get());
        header.load(in);
        return (static_cast<__int64>(header.getGrainDirectoryOffsetSectors()) +
                sectorFromDirectory) *
               512;
    }

    static Bytes read(yx::IIOStream& stream, __int64 position, int count) {
        Bytes bytes(static_cast<std::size_t>(count));
        stream.seek(position);
        stream.read(bytes.data(), count);
        EXPECT_EQ(position + count, stream.getPosition());
        return bytes;
    }

    /// Puts numbers into the file.
    void patch(__int64 position, Bytes const& bytes) {
        unsigned int reserved = 0;
        yx::P<yx::IIOStream> const stream = files->openFile(uriOf(kDisk), kReadWrite, &reserved);
        stream->seek(position);
        stream->write(bytes.data(), static_cast<int>(bytes.size()), nullptr);
    }

    yx::P<yx::CNativeFileSystem> native = yx::makeObject<yx::CNativeFileSystem>();
};

TEST_F(SlotFillingStreamTest, EveryKindOfDiskIsReadWithoutItsSlotSizesAndStaysAsItIs) {
    for (DiskKind const& kind : allDiskKinds()) {
        if (!kind.compressed)
            continue;
        std::string const name = std::string(kind.name) + ".vmdk";
        for (yx::CURI const& uri : {uriOf(name), folder.uri(name)}) {
            SCOPED_TRACE(uri.toString(true).toStdString());
            Bytes const content = makeDisk(kind, uri);
            EXPECT_EQ(kStored, loseAllSlotSizes(uri, kind.password));
            LogCapture const log;
            EXPECT_TRUE(sameBytes(content, readAll(uri, kind.password)));
            EXPECT_TRUE(log.entries().empty());
            // They are still missing.
            SafeDisk(system(uri), uri, kReadWrite, kind.password);
            ASSERT_LE(1U, log.entries().size());
            EXPECT_TRUE(log.entries()[0].message.starts_with("Repaired the sizes of "));
            EXPECT_TRUE(sameBytes(content, readAll(uri, kind.password)));
        }
    }
}

TEST_F(SlotFillingStreamTest, ParentIsReadWithoutItsSlotSizes) {
    for (char const* const kind : {"plain", "compressed"}) {
        SCOPED_TRACE(kind);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        Bytes content = makeDisk(kindNamed("compressed"), uriOf("parent.vmdk"));
        Bytes const change = textPattern(kGrainBytes, 77);
        {
            std::unique_ptr<SafeDisk> const child =
                createSafe(kindNamed(kind), kDisk, "parent.vmdk");
            writeTo(*child, kGrainBytes, change);
            child->markComplete();
        }
        std::copy(change.begin(), change.end(), content.begin() + kGrainBytes);
        EXPECT_EQ(kStored, loseAllSlotSizes(uriOf("parent.vmdk")));
        EXPECT_TRUE(sameBytes(content, contentAfterReopening()));
        std::unique_ptr<SafeDisk> const writer = openSafe();
        EXPECT_TRUE(sameBytes(content, readFrom(*writer, 0, content.size())));
        writer->makeGrainIndependentOfParent(0);
        writer->flush();
        EXPECT_TRUE(sameBytes(content, readFrom(*writer, 0, content.size())));
    }
}

TEST_F(SlotFillingStreamTest, DiskThatWasRenamedIsReadWithoutItsSlotSizes) {
    Bytes const content = makeDisk(kindNamed("compressed"), uriOf("before.vmdk"));
    files->putFile(uriOf(kDisk), files->getFile(uriOf("before.vmdk")));
    files->deleteFile(uriOf("before.vmdk"), false);
    EXPECT_EQ(kStored, loseSlotSizes(files.get(), uriOf(kDisk)));
    EXPECT_TRUE(sameBytes(content, contentAfterReopening()));
}

TEST_F(SlotFillingStreamTest, SlotsShowInWhateverPartsTheyAreRead) {
    makeDisk(kindNamed("compressed"), uriOf(kDisk));
    __int64 const start = positionOf(kSlotTableSector);
    Bytes const sound = read(*openRaw(), start - 512, 2048);
    ASSERT_NE(0, sound[512]);
    loseSlotSizes(files.get(), uriOf(kDisk));
    ASSERT_EQ(0, read(*openRaw(), start, 1)[0]);
    yx::P<yx::IIOStream> const stream = SlotFillingStream::over(openRaw(), 0);
    EXPECT_TRUE(sameBytes(sound, read(*stream, start - 512, 2048)));
    for (int first = 0; first < 1536; first += 2) {
        Bytes const part = read(*stream, start - 512 + first, 32);
        ASSERT_TRUE(sameBytes(slice(sound, static_cast<std::size_t>(first), 32), part)) << first;
    }
    Bytes bytes(2);
    stream->seek(start);
    EXPECT_EQ(2, stream->readLax(bytes.data(), 2));
    EXPECT_TRUE(sameBytes(slice(sound, 512, 2), bytes));
    stream->seek(start);
    EXPECT_EQ(2, stream->readAvailable(bytes.data(), 2));
    EXPECT_TRUE(sameBytes(slice(sound, 512, 2), bytes));
}

TEST_F(SlotFillingStreamTest, GrainWhoseRecordIsNotThereHasNoSlot) {
    makeDisk(kindNamed("compressed"), uriOf(kDisk));
    __int64 const start = positionOf(kSlotTableSector);
    Bytes const positions = read(*openRaw(), positionOf(kTableSector), 16);
    __int64 const second = (positions[4] + positions[5] * 256) * 512;
    loseSlotSizes(files.get(), uriOf(kDisk));
    Bytes const before = read(*SlotFillingStream::over(openRaw(), 0), start, 6);
    ASSERT_NE(0, before[2]);
    Bytes const record = read(*openRaw(), second, 12);
    for (Bytes const& head :
         {Bytes{1, 0, 0, 0, 0, 0, 0, 0}, Bytes{128, 0, 0, 0, 0, 0, 0, 0, 255, 255, 255, 255},
          Bytes{128, 0, 0, 0, 0, 0, 0, 0, 0, 0, 255, 1}}) {
        patch(second, head);
        Bytes const after = read(*SlotFillingStream::over(openRaw(), 0), start, 6);
        EXPECT_TRUE(sameBytes(slice(before, 0, 2), slice(after, 0, 2)));
        EXPECT_EQ(0, after[2] + after[3]);
        EXPECT_TRUE(sameBytes(slice(before, 4, 2), slice(after, 4, 2)));
        patch(second, record);
    }
}

TEST_F(SlotFillingStreamTest, DirectoryThatHasTheTablesElsewhereIsNotFollowed) {
    makeDisk(kindNamed("compressed"), uriOf(kDisk));
    loseSlotSizes(files.get(), uriOf(kDisk));
    __int64 const start = positionOf(kSlotTableSector);
    ASSERT_FALSE(yx::isAllZero(read(*SlotFillingStream::over(openRaw(), 0), start, 64).data(), 64));
    // The entry of the slot size directory, its marker, and the entry of the grain directory.
    for (__int64 const sector : {kSlotDirectorySector, kSlotDirectoryMarkerSector, __int64{0}}) {
        SCOPED_TRACE(sector);
        __int64 const position = positionOf(sector);
        Bytes const was = read(*openRaw(), position, 512);
        patch(position, Bytes(512, 9));
        EXPECT_TRUE(
            yx::isAllZero(read(*SlotFillingStream::over(openRaw(), 0), start, 64).data(), 64));
        patch(position, was);
    }
}

TEST_F(SlotFillingStreamTest, OtherFilesNeedNoSuchStream) {
    for (char const* const kind : {"plain", "encrypted"}) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        makeDisk(kindNamed(kind), uriOf(kDisk));
        yx::P<yx::IIOStream> const stream = openRaw();
        EXPECT_EQ(stream, SlotFillingStream::over(stream, 0)) << kind;
        EXPECT_EQ(0, stream->getPosition());
    }
    for (char const* const text : {"", "# Disk DescriptorFile\n", "KDMV"}) {
        putText(kDisk, text);
        yx::P<yx::IIOStream> const stream = openRaw();
        EXPECT_EQ(stream, SlotFillingStream::over(stream, 0)) << text;
    }
}

TEST_F(SlotFillingStreamTest, SoundDiskCostsAtMostALookAtItsTables) {
    makeDisk(kindNamed("compressed"), uriOf(kDisk));
    __int64 const start = positionOf(kSlotTableSector);
    yx::P<RecordingFileSystem> const record = yx::makeObject<RecordingFileSystem>(files.get());
    unsigned int reserved = 0;
    yx::P<yx::IIOStream> const stream =
        SlotFillingStream::over(record->openFile(uriOf(kDisk), kReadOnly, &reserved), 0);
    record->clear();
    // Of the first two grains, which have slots, and of all.
    read(*stream, start, 4);
    EXPECT_EQ(1U, record->count({FileOperation::Kind::Read}));
    record->clear();
    read(*stream, start, 1024);
    EXPECT_EQ(2U, record->count({FileOperation::Kind::Read}));
}

} // namespace
} // namespace slot_filling_stream_test
} // namespace test_support
