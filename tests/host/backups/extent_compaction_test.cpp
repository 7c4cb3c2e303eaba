#include "host/backups/extent_compaction.h"

#include <gmock/gmock.h>
#include <malloc.h>

#include "host/store/file_names.h"
#include "kelm/format/internal/little_endian.h"
#include "tests/host/host_fixture.h"
#include "tests/support/extent_checker.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/recording_file_system.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace extent_compaction_test {
namespace {

using kelm::host::CompactionPlan;
using kelm::host::ExtentToCompact;
using Kind = FileOperation::Kind;

constexpr std::size_t kOverheadField = 64;
constexpr std::size_t kTrailBytes = 3 * 512;

std::vector<DiskKind> oneFileKinds() {
    return {kindNamed("plain"), kindNamed("compressed"), kindNamed("encrypted"),
            kindNamed("encryptedCompressed")};
}

/// "disk.vmdk" in memory, and what it would be without its dead space.
class ExtentCompactionTest : public HostTest {
protected:
    LogCapture const quiet;

    /// Grains that were written once, twice, and with zeros, and the last one.
    void makeDisk(DiskKind const& kind) {
        if (files->fileExists(uriOf("disk.vmdk")))
            files->deleteFile(uriOf("disk.vmdk"), false);
        password = kind.password;
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind);
            for (int grain : {9, 4, 0, 1, 2, 3, 127})
                writeGrain(*disk, grain, textPattern(kGrainBytes, static_cast<unsigned>(grain)));
        }
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, kind.password);
        // Those of a compressed disk move to larger slots.
        for (int grain : {1, 9})
            writeGrain(*disk, grain, pattern(kGrainBytes, static_cast<unsigned>(grain)));
        for (int grain : {2, 4})
            writeGrain(*disk, grain, zeros(kGrainBytes));
        // A grain that shrinks leaves its slot too large.
        writeGrain(*disk, 1, textPattern(kGrainBytes, 77));
    }

    Bytes fileBytes(std::string const& name = "disk.vmdk") {
        return toBytes(files->getFile(uriOf(name)));
    }
    void putBytes(Bytes const& bytes, std::string const& name = "disk.vmdk") {
        files->putFile(uriOf(name), toBuffer(bytes));
    }

    /// As a kill leaves it: what was at the end is overwritten.
    void addDeadTail(DiskKind const& kind, std::size_t bytes) {
        Bytes content = fileBytes();
        if (kind.compressed)
            content.resize(content.size() - kTrailBytes);
        Bytes const dead = pattern(bytes, 5);
        content.insert(content.end(), dead.begin(), dead.end());
        putBytes(content);
    }

    ExtentToCompact describe(bool mayDropZeros = true) {
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, password.c_str());
        ExtentToCompact extent;
        extent.key = kelm::host::unwrapDiskKey(*disk->getDisk().getDescriptor(), uriOf("disk.vmdk"),
                                               password.c_str());
        if (mayDropZeros)
            extent.mayDropZeros = [](__int64) { return true; };
        return extent;
    }

    yx::P<yx::IIOStream> openFile(std::string const& name, yx::IIOStream::Access access) {
        return kelm::openVMDKFileStream(through ? through.get() : files.get(), uriOf(name), access);
    }

    CompactionPlan plan(bool mayDropZeros = true) {
        return kelm::host::planCompaction(*openFile("disk.vmdk", kReadOnly), describe(mayDropZeros),
                                          ignoreProgress);
    }

    void write(CompactionPlan const& plan) {
        files->deleteFile(uriOf("new.vmdk"), true);
        yx::P<yx::IIOStream> const target = openFile("new.vmdk", kReadWrite);
        kelm::host::writeCompacted(*openFile("disk.vmdk", kReadOnly), plan, *target,
                                   ignoreProgress);
        target->close();
    }

    void verify(CompactionPlan const& plan) {
        kelm::host::verifyCompacted(*openFile("disk.vmdk", kReadOnly), plan,
                                    *openFile("new.vmdk", kReadOnly), ignoreProgress);
    }

    /// Puts the new file in the place of the old one.
    CompactionPlan compact(bool mayDropZeros = true) {
        CompactionPlan const planned = plan(mayDropZeros);
        EXPECT_TRUE(planned.isWorthwhile());
        write(planned);
        verify(planned);
        putBytes(fileBytes("new.vmdk"));
        EXPECT_EQ(planned.bytesAfter, static_cast<__int64>(fileBytes().size()));
        return planned;
    }

    Bytes content() { return contentAfterReopening("disk.vmdk", password.c_str()); }

    /// Nothing lies between the grains or behind them, and they are in order.
    void expectIsTight(std::vector<std::uint64_t> const& grains) {
        Bytes const bytes = fileBytes();
        ExtentReport const report = checkExtent(toBuffer(bytes));
        EXPECT_EQ("", report.text());
        std::uint64_t endSectors = report.overheadSectors;
        std::vector<std::uint64_t> stored;
        for (auto const& [grain, slot] : report.grains) {
            stored.push_back(grain);
            EXPECT_EQ(endSectors, slot.posSectors) << grain;
            endSectors += slot.sizeSectors;
        }
        EXPECT_EQ(grains, stored);
        EXPECT_EQ(endSectors * 512 + (report.compressed ? kTrailBytes : 0), bytes.size());
    }

    static void ignoreProgress(__int64 doneBytes) { EXPECT_GE(doneBytes, 0); }

    std::string password;
    yx::P<yx::IFileSystem> through;
};

TEST_F(ExtentCompactionTest, KeepsWhatTheDiskReadsAndNothingElse) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        addDeadTail(kind, 200 * 512);
        Bytes const before = content();
        compact();
        EXPECT_TRUE(sameBytes(before, content()));
        expectIsTight({0, 1, 3, 9, 127});
    }
}

TEST_F(ExtentCompactionTest, HasNothingToWinFromItsOwnResult) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        CompactionPlan const first = compact();
        CompactionPlan const second = plan();
        EXPECT_FALSE(second.isWorthwhile());
        EXPECT_EQ(first.bytesAfter, second.bytesBefore);
        EXPECT_EQ(first.bytesAfter, second.bytesAfter);
    }
}

TEST_F(ExtentCompactionTest, ResultCanBeWrittenToAsBefore) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        compact();
        Bytes expected = content();
        {
            std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadWrite, kind.password);
            for (int grain : {0, 2, 50}) {
                Bytes const bytes = pattern(kGrainBytes, static_cast<unsigned>(grain) + 300);
                writeGrain(*disk, grain, bytes);
                std::copy(bytes.begin(), bytes.end(), expected.begin() + grain * kGrainBytes);
            }
        }
        EXPECT_TRUE(sameBytes(expected, content()));
        EXPECT_EQ("", checkExtent(toBuffer(fileBytes())).text());
    }
}

TEST_F(ExtentCompactionTest, KeepsZerosWhereTheyMayNotGo) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        addDeadTail(kind, 512);
        compact(false);
        expectIsTight({0, 1, 2, 3, 4, 9, 127});
    }
}

TEST_F(ExtentCompactionTest, TakesRecordsAwayThatNoEntryRefersTo) {
    makeDisk({});
    __int64 const before = compact().bytesAfter;
    Bytes bytes = fileBytes();
    auto const sectorAt = [&bytes](std::size_t position) {
        return std::size_t{kelm::loadLittleEndian<unsigned int>(bytes.data() + position)} * 512;
    };
    constexpr std::size_t kRedundantDirectoryField = 48;
    constexpr std::size_t kDirectoryField = 56;
    constexpr std::size_t kEntryOfGrain3 = 3 * 4;
    for (std::size_t field : {kRedundantDirectoryField, kDirectoryField}) {
        std::size_t const table = sectorAt(sectorAt(field));
        kelm::storeLittleEndian(bytes.data() + table + kEntryOfGrain3, 0U);
    }
    putBytes(bytes);
    EXPECT_EQ(before - kGrainBytes, compact().bytesAfter);
    expectIsTight({0, 1, 9, 127});
}

TEST_F(ExtentCompactionTest, RenewsACopyOfATableThatLags) {
    makeDisk({});
    Bytes bytes = fileBytes();
    constexpr std::size_t kRedundantDirectoryField = 48;
    auto const sectorAt = [&bytes](std::size_t position) {
        return std::size_t{kelm::loadLittleEndian<unsigned int>(bytes.data() + position)} * 512;
    };
    std::size_t const copy = sectorAt(sectorAt(kRedundantDirectoryField));
    kelm::storeLittleEndian(bytes.data() + copy + 3 * 4, 0U);
    putBytes(bytes);
    Bytes const before = content();
    compact();
    EXPECT_TRUE(sameBytes(before, content()));
    expectIsTight({0, 1, 3, 9, 127});
}

TEST_F(ExtentCompactionTest, RefusesADamagedGrain) {
    makeDisk(kindNamed("compressed"));
    Bytes const sound = fileBytes();
    auto const place = checkExtent(toBuffer(sound)).grains.at(9).posSectors * 512;
    Props const props{{"uri", "mem:///disks/disk.vmdk"}, {"grain", "9"}};
    Bytes bytes = sound;
    bytes[place] = static_cast<unsigned char>(bytes[place] + 1);
    putBytes(bytes);
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Grain 9 of the extent file has a record that names another grain or "
                              "cannot be read, so the file cannot be compacted.",
                              props, [&] { plan(); }));
    bytes = sound;
    for (std::size_t at = place + 100; at < place + 200; ++at)
        bytes[at] = static_cast<unsigned char>(~bytes[at]);
    putBytes(bytes);
    try {
        plan();
        FAIL() << "It was planned.";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::CorruptData, error.getIOCode());
        EXPECT_EQ(props, propsOf(error));
    }
}

TEST_F(ExtentCompactionTest, RefusesAPlainGrainOutsideTheFile) {
    makeDisk({});
    Bytes bytes = fileBytes();
    bytes.resize(bytes.size() - 512);
    putBytes(bytes);
    EXPECT_TRUE(throwsIOError(
        yx::CIOError::CorruptData,
        "Grain 127 of the extent file lies outside the file, so the file cannot be compacted.",
        {{"uri", "mem:///disks/disk.vmdk"}, {"grain", "127"}}, [&] { plan(); }));
}

TEST_F(ExtentCompactionTest, RefusesADamagedTable) {
    makeDisk({});
    Bytes bytes = fileBytes();
    constexpr std::size_t kDirectoryField = 56;
    auto const sectorAt = [&bytes](std::size_t position) {
        return std::size_t{kelm::loadLittleEndian<unsigned int>(bytes.data() + position)} * 512;
    };
    std::size_t const table = sectorAt(sectorAt(kDirectoryField));
    kelm::storeLittleEndian(bytes.data() + table, 0U);
    putBytes(bytes);
    EXPECT_TRUE(throwsIOError(yx::CIOError::CorruptData,
                              "Grain table 0 differs from its redundant copy, so the file cannot "
                              "be compacted.",
                              {{"uri", "mem:///disks/disk.vmdk"}, {"table", "0"}},
                              [&] { plan(); }));
}

TEST_F(ExtentCompactionTest, LeavesAFileAloneWhoseTablesLieAmongItsGrains) {
    makeDisk({});
    Bytes bytes = fileBytes();
    kelm::storeLittleEndian(bytes.data() + kOverheadField, 22ULL);
    putBytes(bytes);
    CompactionPlan const planned = plan();
    EXPECT_EQ("its tables do not all lie before its grains", planned.obstacle);
    EXPECT_FALSE(planned.isWorthwhile());
    EXPECT_EQ(planned.bytesBefore, planned.bytesAfter);
}

/// Whatever is damaged on the way to the device: it is noticed, or does not matter.
TEST_F(ExtentCompactionTest, ComparisonNoticesWhatWouldReadOtherwise) {
    for (DiskKind const& kind : {kindNamed("plain"), kindNamed("encryptedCompressed")}) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        CompactionPlan const planned = plan();
        write(planned);
        verify(planned);
        Bytes const old = fileBytes();
        Bytes const sound = fileBytes("new.vmdk");
        Bytes const expected = content();
        int noticed = 0;
        int tried = 0;
        for (std::size_t sector = 0; sector < sound.size() / 512; ++sector) {
            // All of the metadata, and some of the grains.
            if (sector > 150 && sector % 37 != 0)
                continue;
            for (std::size_t at : {sector * 512, sector * 512 + 8, sector * 512 + 500}) {
                SCOPED_TRACE(at);
                Bytes damaged = sound;
                damaged[at] = static_cast<unsigned char>(damaged[at] ^ 1);
                putBytes(damaged, "new.vmdk");
                ++tried;
                try {
                    verify(planned);
                } catch (yx::CError const&) {
                    ++noticed;
                    continue;
                }
                putBytes(damaged);
                EXPECT_TRUE(sameBytes(expected, content()));
                putBytes(old);
            }
        }
        // The rest are markers, sizes of slots without grains, and what lies between tables.
        EXPECT_GT(noticed, tried / 3);
        Bytes shorter = sound;
        shorter.pop_back();
        putBytes(shorter, "new.vmdk");
        EXPECT_TRUE(throwsIOError(yx::CIOError::IOFailure,
                                  "The compacted file differs from the old one.",
                                  {{"uri", "mem:///disks/new.vmdk"}}, [&] { verify(planned); }));
    }
}

TEST_F(ExtentCompactionTest, PassesEveryFailureOfTheFiles) {
    for (DiskKind const& kind : {kindNamed("plain"), kindNamed("compressed")}) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        CompactionPlan const planned = plan();
        Bytes const old = fileBytes();
        FileOperationKinds const all{Kind::Read, Kind::Write, Kind::SetLength, Kind::Flush};
        auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
        through = yx::P<yx::IFileSystem>(faulty.get());
        write(planned);
        int const count = faulty->count(all);
        ASSERT_GT(count, 8);
        for (int nth = 1; nth <= count; ++nth) {
            SCOPED_TRACE(nth);
            faulty->clear();
            faulty->add({.kinds = all, .nth = nth, .sticky = true});
            IgnoredExceptionCapture const ignored;
            EXPECT_THROW(write(planned), yx::CIOError);
        }
        faulty->clear();
        EXPECT_TRUE(sameBytes(old, fileBytes()));
        write(planned);
        verify(planned);
        through.reset();
    }
}

TEST_F(ExtentCompactionTest, BringsAllOfTheNewFileToTheDevice) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        CompactionPlan const planned = plan();
        auto const recording = yx::makeObject<RecordingFileSystem>(files.get());
        through = yx::P<yx::IFileSystem>(recording.get());
        write(planned);
        EXPECT_EQ("flush new.vmdk", recording->lines(kChanges, "new.vmdk").back());
        EXPECT_EQ(0U, recording->count(kChanges, "disk.vmdk"));
        through.reset();
    }
}

TEST_F(ExtentCompactionTest, ReportsHowFarItIs) {
    makeDisk(kindNamed("compressed"));
    CompactionPlan planned;
    std::vector<__int64> done;
    auto const note = [&done](__int64 bytes) { done.push_back(bytes); };
    planned = kelm::host::planCompaction(*openFile("disk.vmdk", kReadOnly), describe(), note);
    ASSERT_FALSE(done.empty());
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_LE(done.back(), planned.bytesBefore);
    EXPECT_GT(done.back(), planned.bytesBefore / 2);
    done.clear();
    kelm::host::writeCompacted(*openFile("disk.vmdk", kReadOnly), planned,
                               *openFile("new.vmdk", kReadWrite), note);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
    EXPECT_EQ(planned.bytesAfter - static_cast<__int64>(kTrailBytes), done.back());
    struct Ended {};
    EXPECT_THROW(kelm::host::planCompaction(*openFile("disk.vmdk", kReadOnly), describe(),
                                            [](__int64) { throw Ended(); }),
                 Ended);
}

/// In a sanitizer build the allocator counts nothing, and this says nothing.
TEST_F(ExtentCompactionTest, TakesLessMemoryThanTheTables) {
    constexpr __int64 kSizeGibibytes = 128;
    auto const native = yx::makeObject<yx::CNativeFileSystem>();
    auto const uriIn = [this](char const* name) {
        return kelm::host::uriFromArgument((folder.path() / name).string());
    };
    {
        auto const guard = yx::makeObject<FileGuard>(native.get(), false);
        guard->keep();
        auto const disk =
            SafeDisk::create(guard.get(), uriIn("disk.vmdk"), requestFor({}, kSizeGibibytes << 30));
        for (int grain : {0, 500, 70000, 2000000}) {
            Bytes const bytes = pattern(kGrainBytes, static_cast<unsigned>(grain));
            writeTo(*disk, grain * kGrainBytes, bytes);
        }
        writeTo(*disk, 500 * kGrainBytes, zeros(kGrainBytes));
    }
    std::size_t const before = ::mallinfo2().uordblks;
    std::size_t most = 0;
    auto const measure = [&](__int64) { most = std::max(most, ::mallinfo2().uordblks); };
    auto const source = kelm::openVMDKFileStream(native.get(), uriIn("disk.vmdk"), kReadOnly);
    ExtentToCompact extent;
    extent.mayDropZeros = [](__int64) { return true; };
    int calls = 0;
    auto const measureSometimes = [&](__int64 bytes) {
        if (++calls % 1000 == 0)
            measure(bytes);
    };
    CompactionPlan const planned = kelm::host::planCompaction(*source, extent, measureSometimes);
    EXPECT_EQ(kGrainBytes, planned.bytesBefore - planned.bytesAfter);
    auto const target = kelm::openVMDKFileStream(native.get(), uriIn("new.vmdk"), kReadWrite);
    kelm::host::writeCompacted(*source, planned, *target, measureSometimes);
    kelm::host::verifyCompacted(*source, planned, *target, measureSometimes);
    constexpr std::size_t kTablesOfGibibyte = std::size_t{64} << 10;
    EXPECT_LT(most - std::min(most, before), kSizeGibibytes * kTablesOfGibibyte);
}

TEST_F(ExtentCompactionTest, OfAFileWithoutGrainsGoesUpToItsTables) {
    for (DiskKind const& kind : oneFileKinds()) {
        SCOPED_TRACE(kind.name);
        files->deleteFile(uriOf("disk.vmdk"), true);
        password = kind.password;
        createSafe(kind);
        Bytes const empty = fileBytes();
        EXPECT_FALSE(plan().isWorthwhile());
        addDeadTail(kind, 3000);
        compact();
        EXPECT_TRUE(sameBytes(empty, fileBytes()));
    }
}

} // namespace
} // namespace extent_compaction_test
} // namespace test_support
