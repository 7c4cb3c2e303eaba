#include "host/check/repair.h"

#include "host/check/disk_check.h"
#include "host/check/undo_file.h"
#include "tests/host/host_fixture.h"
#include "tests/support/expect_error.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace repair_test {
namespace {

using kelm::host::checkDisk;
using kelm::host::repairDisk;
using kelm::host::RepairOptions;
using kelm::host::RepairReport;
using kelm::host::UndoFile;
using kelm::host::undoRepair;

constexpr std::size_t kSector = 512;
constexpr int kGrains = 40;

/// The names and contents of all files.
using Files = std::map<std::string, Bytes>;

class Repair : public HostTest {
protected:
    /// A disk whose first file has grains, and what it reads as.
    void makeDisk(DiskKind const& kind) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        m_kind = kind;
        {
            std::unique_ptr<SafeDisk> const disk = createSafe(kind);
            for (int grain = 0; grain < kGrains; grain += 1 + grain % 3)
                writeGrain(*disk, grain, textPattern(kGrainBytes, static_cast<unsigned>(grain)));
            disk->flush();
        }
        m_content = contentAfterReopening("disk.vmdk", kind.password);
    }

    /// The file that holds the first grain.
    std::string extentName() {
        std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly, m_kind.password);
        return disk->listExtents().front().uri.getName().toStdString();
    }

    std::size_t number(Bytes const& bytes, std::size_t at, std::size_t count) const {
        std::size_t value = 0;
        for (std::size_t i = count; i-- > 0;)
            value = value << 8 | bytes.at(at + i);
        return value;
    }

    void overwrite(std::string const& name, std::size_t at, std::size_t count, unsigned char byte) {
        Bytes bytes = toBytes(files->getFile(uriOf(name)));
        ASSERT_LE(at + count, bytes.size());
        std::fill_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), count, byte);
        files->putFile(uriOf(name), toBuffer(bytes));
    }

    struct Damage {
        char const* what;
        std::size_t at;
        std::size_t count;
        unsigned char byte;
    };

    /// Each is a damage by itself.
    std::vector<Damage> listDamage(std::string const& name) {
        Bytes const bytes = toBytes(files->getFile(uriOf(name)));
        std::size_t const directory = number(bytes, 56, 8) * kSector;
        std::size_t const copies = number(bytes, 48, 8) * kSector;
        std::size_t const table = number(bytes, directory, 4) * kSector;
        std::size_t const copy = number(bytes, copies, 4) * kSector;
        std::vector<Damage> damage{
            {"the header", 0, kSector, 0x5A},
            {"the places in the header", 48, 16, 0x11},
            {"the grain directory", directory, kSector, 0xFF},
            {"the redundant directory", copies, kSector, 0},
            {"a sector of the table", table, kSector, 0},
            {"the table", table, 4 * kSector, 0xEE},
            {"the redundant table", copy, 4 * kSector, 0},
            {"an entry", table, 2, 0x77},
        };
        if (m_kind.compressed) {
            damage.push_back({"the marker of the table", table - kSector, kSector, 0});
            damage.push_back({"the slot size marker", table + 4 * kSector, kSector, 0});
            damage.push_back({"the slot size directory", table + 5 * kSector, kSector, 0xFF});
            damage.push_back({"the slot size table", table + 7 * kSector, kSector, 0});
            damage.push_back({"the footer", bytes.size() - 2 * kSector, kSector, 0});
            damage.push_back({"the end", bytes.size() - kSector, kSector, 0x33});
        }
        return damage;
    }

    RepairReport repair(bool isDryRun = false) {
        RepairOptions options;
        options.isDryRun = isDryRun;
        return repairDisk(files.get(), uriOf("disk.vmdk"), m_kind.password, options);
    }

    std::string findings() {
        std::string text;
        checkDisk(files.get(), uriOf("disk.vmdk"), m_kind.password, {},
                  [&](yx::CURI const&, std::string const& finding) { text += finding + "\n"; });
        return text;
    }

    Files takeFiles() {
        Files contents;
        for (std::string const& name : fileNames())
            contents[name] = toBytes(files->getFile(uriOf(name)));
        return contents;
    }

    void putFiles(Files const& contents) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        for (auto const& [name, bytes] : contents)
            files->putFile(uriOf(name), toBuffer(bytes));
    }

    static Files withoutCopy(Files contents) {
        contents.erase("disk.vmdk.repaired");
        return contents;
    }

    DiskKind m_kind;
    Bytes m_content;
};

TEST_F(Repair, OfASoundDiskChangesNothing) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        Files const before = takeFiles();
        EXPECT_TRUE(repair().files.empty());
        EXPECT_EQ(takeFiles(), before);
    }
}

TEST_F(Repair, PutsMetadataRightAndTakesItBack) {
    LogCapture const quiet;
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeDisk(kind);
        Files const sound = takeFiles();
        std::string const name = extentName();
        for (Damage const& damage : listDamage(name)) {
            SCOPED_TRACE(damage.what);
            putFiles(sound);
            overwrite(name, damage.at, damage.count, damage.byte);
            Files const damaged = takeFiles();

            RepairReport const planned = repair(true);
            EXPECT_EQ(takeFiles(), damaged);
            RepairReport const report = repair();
            EXPECT_TRUE(report.hasMended());
            EXPECT_FALSE(report.hasLeft()) << report.files[0].left[0];
            EXPECT_EQ(planned.files[0].mended, report.files[0].mended);
            EXPECT_EQ(findings(), "");
            EXPECT_TRUE(sameBytes(m_content, contentAfterReopening("disk.vmdk", kind.password)));
            EXPECT_TRUE(repair().files.empty());

            undoRepair(files.get(), uriOf("disk.vmdk"), {});
            EXPECT_EQ(takeFiles(), damaged);
        }
    }
}

TEST_F(Repair, GivesACutFileItsTrailBack) {
    makeDisk(kindNamed("compressed"));
    Bytes const sound = toBytes(files->getFile(uriOf("disk.vmdk")));
    for (std::size_t const cut : {1U, 512U, 600U, 1536U}) {
        SCOPED_TRACE(cut);
        files->putFile(uriOf("disk.vmdk"), toBuffer(slice(sound, 0, sound.size() - cut)));
        Files const damaged = takeFiles();
        EXPECT_TRUE(repair().hasMended());
        EXPECT_EQ(findings(), "");
        undoRepair(files.get(), uriOf("disk.vmdk"), {});
        EXPECT_EQ(takeFiles(), damaged);
    }
}

TEST_F(Repair, LeavesAndSaysWhatBothTablesHaveLost) {
    makeDisk(kindNamed("compressed"));
    Bytes const bytes = toBytes(files->getFile(uriOf("disk.vmdk")));
    for (std::size_t const field : {48U, 56U}) {
        std::size_t const directory = number(bytes, field, 8) * kSector;
        overwrite("disk.vmdk", number(bytes, directory, 4) * kSector, 4,
                  static_cast<unsigned char>(field));
    }
    Files const damaged = takeFiles();
    RepairReport const report = repair();
    ASSERT_EQ(report.files.size(), 1U);
    EXPECT_EQ(report.files[0].mended, std::vector<std::string>());
    EXPECT_EQ(report.files[0].left,
              std::vector<std::string>{
                  "the places of the grains 0-0 are not known for sure, or lie outside the file"});
    EXPECT_EQ(takeFiles(), damaged);
}

TEST_F(Repair, ThatEndsAtAnyWriteIsGoneOnWithOrTakenBack) {
    LogCapture const quiet;
    IgnoredExceptionCapture const ignored;
    for (char const* const name : {"plain", "compressed", "compressedSplit"}) {
        SCOPED_TRACE(name);
        makeDisk(kindNamed(name));
        std::string const extent = extentName();
        for (Damage const& damage : listDamage(extent)) {
            if (damage.at > 0 && damage.count > 4)
                overwrite(extent, damage.at, std::min<std::size_t>(damage.count, 64), damage.byte);
            if (damage.at > 0 && std::string(damage.what) == "the grain directory")
                break;
        }
        Files const damaged = takeFiles();
        ASSERT_TRUE(repair().hasMended());
        Files const repaired = withoutCopy(takeFiles());

        bool hasEnded = false;
        for (int nth = 1; !hasEnded; ++nth) {
            for (bool const isUndo : {false, true}) {
                SCOPED_TRACE(testing::Message() << "write " << nth << (isUndo ? ", undo" : ""));
                putFiles(damaged);
                auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
                faulty->add({.kinds = {FileOperation::Kind::Write, FileOperation::Kind::SetLength},
                             .nth = nth,
                             .sticky = true,
                             .effect = Fault::Effect::Tear});
                try {
                    repairDisk(faulty.get(), uriOf("disk.vmdk"), m_kind.password, {});
                    hasEnded = true;
                } catch (yx::CError const& error) {
                    EXPECT_EQ(error.getMessage(), "Injected failure.");
                }
                if (!isUndo) {
                    repair();
                    EXPECT_EQ(withoutCopy(takeFiles()), repaired);
                } else if (files->fileExists(uriOf("disk.vmdk.repairing")) ||
                           files->fileExists(uriOf("disk.vmdk.repaired"))) {
                    undoRepair(files.get(), uriOf("disk.vmdk"), {});
                    EXPECT_EQ(takeFiles(), damaged);
                } else {
                    EXPECT_EQ(takeFiles(), damaged);
                }
            }
        }
    }
}

TEST_F(Repair, IsNotTakenBackFromADiskThatWasWrittenToSince) {
    makeDisk(kindNamed("plain"));
    overwrite("disk.vmdk", listDamage("disk.vmdk")[4].at, kSector, 0);
    ASSERT_TRUE(repair().hasMended());
    {
        std::unique_ptr<SafeDisk> const disk = openSafe();
        writeGrain(*disk, 100, pattern(kGrainBytes, 3));
        disk->flush();
    }
    Files const before = takeFiles();
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk has been changed since its repair.",
                              {{"uri", "mem:///disks/disk.vmdk"}},
                              [&] { undoRepair(files.get(), uriOf("disk.vmdk"), {}); }));
    EXPECT_EQ(takeFiles(), before);
}

TEST_F(Repair, IsNotTakenBackFromAFileThatHasGrownOrWasCutSince) {
    for (char const* const name : {"plain", "compressed"}) {
        makeDisk(kindNamed(name));
        overwrite("disk.vmdk", listDamage("disk.vmdk")[4].at, kSector, 0);
        ASSERT_TRUE(repair().hasMended());
        Bytes const repaired = toBytes(files->getFile(uriOf("disk.vmdk")));
        for (int const change : {-1, 1, static_cast<int>(kGrainBytes)}) {
            SCOPED_TRACE(testing::Message() << name << ", " << change << " bytes");
            Bytes changed = repaired;
            changed.resize(static_cast<std::size_t>(static_cast<int>(repaired.size()) + change), 7);
            files->putFile(uriOf("disk.vmdk"), toBuffer(changed));
            Files const before = takeFiles();
            EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                                      "The disk has been changed since its repair.",
                                      {{"uri", "mem:///disks/disk.vmdk"}},
                                      [&] { undoRepair(files.get(), uriOf("disk.vmdk"), {}); }));
            EXPECT_EQ(takeFiles(), before);
        }
        files->putFile(uriOf("disk.vmdk"), toBuffer(repaired));
        EXPECT_EQ(1, undoRepair(files.get(), uriOf("disk.vmdk"), {}));
    }
}

TEST_F(Repair, WithoutOneThereIsNothingToUndo) {
    makeDisk(kindNamed("plain"));
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "No repair of the disk can be undone.",
                              {{"uri", "mem:///disks/disk.vmdk"}},
                              [&] { undoRepair(files.get(), uriOf("disk.vmdk"), {}); }));
}

TEST_F(Repair, OfADiskInUseIsRefused) {
    makeDisk(kindNamed("plain"));
    std::unique_ptr<SafeDisk> const disk = openSafe("disk.vmdk", kReadOnly);
    EXPECT_THROW(repair(), yx::CLockFileError);
}

TEST_F(Repair, CopyThatIsNotWholeCountsAsNone) {
    UndoFile undo;
    undo.files.push_back({uriOf("disk.vmdk"), 1024, {{1, true, zeros(512), pattern(512, 1)}}});
    yx::CURI const name = uriOf("disk.vmdk.repairing");
    undo.write(files.get(), name);
    std::optional<UndoFile> const read = UndoFile::tryRead(files.get(), name);
    ASSERT_TRUE(read);
    EXPECT_EQ(read->files[0].uri, uriOf("disk.vmdk"));
    EXPECT_EQ(read->files[0].lengthBytes, 1024);
    EXPECT_EQ(read->files[0].sectors[0].sector, 1);
    EXPECT_EQ(read->files[0].sectors[0].after, pattern(512, 1));
    Bytes const whole = toBytes(files->getFile(name));
    for (std::size_t length = 0; length < whole.size(); length += 7) {
        files->putFile(name, toBuffer(slice(whole, 0, length)));
        EXPECT_FALSE(UndoFile::tryRead(files.get(), name)) << length;
    }
}

} // namespace
} // namespace repair_test
} // namespace test_support
