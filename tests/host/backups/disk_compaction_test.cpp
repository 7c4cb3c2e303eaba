#include "host/backups/disk_compaction.h"

#include <filesystem>
#include <fstream>
#include <map>

#include <gmock/gmock.h>
#include <sys/stat.h>

#include "host/backups/disk_deletion.h"
#include "host/backups/disk_note.h"
#include "host/backups/disk_parts.h"
#include "host/check/undo_file.h"
#include "host/disk/descriptor_checksum.h"
#include "host/disk/disk_record.h"
#include "host/store/file_names.h"
#include "host/transfer/digest_making.h"
#include "tests/support/ending_steps.h"
#include "tests/support/expect_error.h"
#include "tests/support/extent_checker.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"
#include "tests/support/safe_disks.h"
#include "tests/support/sanitized.h"
#include "tests/support/small_device.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_compaction_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::CompactedFile;
using kelm::host::DiskCompaction;
using kelm::host::DiskCompactionOptions;
using testing::ElementsAre;
using Kind = FileOperation::Kind;

/// "full.vmdk" and its child "day.vmdk", each with data, and with dead space in its files.
class DiskCompactionTest : public ::testing::Test {
protected:
    std::string path(std::string const& name) const { return (folder.path() / name).string(); }
    yx::CURI uri(std::string const& name) const { return kelm::host::uriFromArgument(path(name)); }
    static std::string uriText(yx::CURI const& file) { return file.toString(true).toStdString(); }

    void make(std::string const& name, std::string const& parent, DiskKind const& kind) {
        NewDisk request = requestFor(kind);
        request.label = "nightly";
        request.imageBytes = kSmallestDiskBytes - 100;
        if (!parent.empty())
            request.parent = uri(parent);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        auto const disk = SafeDisk::create(guard.get(), uri(name), request);
        unsigned int const seed = parent.empty() ? 0 : 500;
        for (int grain : {4, 0, 1, 2, 60, 3, 127, 126, 125})
            writeGrain(*disk, grain,
                       textPattern(kGrainBytes, seed + static_cast<unsigned int>(grain)));
    }

    /// Slots without a record, and zeros.
    void overwrite(std::string const& name) {
        SafeDisk disk(files.get(), uri(name), kReadWrite, password);
        for (int grain : {1, 127})
            writeGrain(disk, grain, pattern(kGrainBytes, 900 + static_cast<unsigned int>(grain)));
        for (int grain : {3, 126})
            writeGrain(disk, grain, zeros(kGrainBytes));
    }

    void makeChain(DiskKind const& kind) {
        LogCapture const quiet;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        password = kind.password;
        make("full.vmdk", "", kind);
        overwrite("full.vmdk");
        make("day.vmdk", "full.vmdk", kind);
        overwrite("day.vmdk");
        for (std::string const& name : names())
            addDeadTail(name);
        // That gives the dead tails their place before the end.
        for (char const* const name : {"full.vmdk", "day.vmdk"})
            SafeDisk const opened(files.get(), uri(name), kReadWrite, password);
        contents.clear();
        for (char const* const name : {"full.vmdk", "day.vmdk"})
            contents[name] = read(name);
        contentIDs = readContentIDs();
    }

    /// Behind each extent, not behind a text.
    void addDeadTail(std::string const& name) const {
        if (fs::file_size(path(name)) < 50000)
            return;
        Bytes const dead = pattern(40 * 512, 3);
        std::ofstream(path(name), std::ios::app | std::ios::binary)
            .write(reinterpret_cast<char const*>(dead.data()),
                   static_cast<std::streamsize>(dead.size()));
    }

    Bytes read(std::string const& name) {
        SafeDisk disk(files.get(), uri(name), kReadOnly, password);
        Bytes bytes(kSmallestDiskBytes);
        disk.read(0, bytes.data(), static_cast<int>(bytes.size()));
        return bytes;
    }

    std::vector<unsigned int> readContentIDs() {
        std::vector<unsigned int> ids;
        for (char const* const name : {"full.vmdk", "day.vmdk"})
            ids.push_back(SafeDisk(files.get(), uri(name), kReadOnly, password)
                              .getDisk()
                              .getDescriptor()
                              ->getContentID());
        return ids;
    }

    void expectReadAsBefore() {
        for (auto const& [name, content] : contents)
            EXPECT_TRUE(read(name) == content) << name;
        EXPECT_EQ(contentIDs, readContentIDs());
    }

    std::vector<CompactedFile> compact(std::string const& name,
                                       yx::IFileSystem* through = nullptr) {
        options.password = password;
        return DiskCompaction(through ? through : files.get(), steps, uri(name), options).run();
    }

    static __int64 won(std::vector<CompactedFile> const& result) {
        __int64 bytes = 0;
        for (CompactedFile const& file : result)
            bytes += file.bytesBefore - file.bytesAfter;
        return bytes;
    }

    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            found.push_back(entry.path().filename().string());
        std::sort(found.begin(), found.end());
        return found;
    }

    std::map<std::string, std::uintmax_t> sizes() const {
        std::map<std::string, std::uintmax_t> found;
        for (std::string const& name : names())
            found[name] = fs::file_size(path(name));
        return found;
    }

    Bytes bytesOf(std::string const& name) const {
        std::ifstream file(path(name), std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(file), {});
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files = yx::makeObject<yx::CNativeFileSystem>();
    EndingSteps steps;
    DiskCompactionOptions options;
    char const* password = "";
    std::map<std::string, Bytes> contents;
    std::vector<unsigned int> contentIDs;
};

TEST_F(DiskCompactionTest, EveryKindReadsAsBeforeAndIsSmaller) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        std::vector<std::string> const before = names();
        auto const sizesBefore = sizes();
        for (char const* const name : {"day.vmdk", "full.vmdk"}) {
            std::vector<CompactedFile> const result = compact(name);
            EXPECT_GE(won(result), 40 * 512) << name;
            for (CompactedFile const& file : result) {
                std::string const fileName = file.file.getName().toStdString();
                EXPECT_EQ(sizesBefore.at(fileName), file.bytesBefore);
                EXPECT_EQ(fs::file_size(path(fileName)), file.bytesAfter);
                EXPECT_EQ("", file.obstacle);
            }
            expectReadAsBefore();
            EXPECT_EQ(0, won(compact(name))) << name;
        }
        EXPECT_EQ(before, names());
    }
}

TEST_F(DiskCompactionTest, KeepsWhatTheDescriptorSays) {
    for (DiskKind const& kind : {kindNamed("compressed"), kindNamed("split")}) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        compact("day.vmdk");
        SafeDisk disk(files.get(), uri("day.vmdk"), kReadOnly, password);
        kelm::CVMDKDescriptor& descriptor = *disk.getDisk().getDescriptor();
        EXPECT_EQ(kelm::host::ChecksumState::Valid,
                  kelm::host::getChecksumState(descriptor, uri("day.vmdk")));
        EXPECT_EQ("nightly", kelm::host::DiskRecord(descriptor).getLabel());
        EXPECT_EQ(kSmallestDiskBytes - 100,
                  kelm::host::DiskRecord(descriptor).getImageBytes(kSmallestDiskBytes));
        EXPECT_EQ(uri("full.vmdk"), disk.getDisk().getParentDiskMainURI().toNormalized());
    }
}

TEST_F(DiskCompactionTest, TakesZerosOutOfADiskWithoutAParentAlone) {
    makeChain({});
    auto const grainsOf = [this](std::string const& name) {
        std::vector<std::uint64_t> grains;
        for (auto const& entry : checkExtent(toBuffer(bytesOf(name))).grains)
            grains.push_back(entry.first);
        return grains;
    };
    compact("full.vmdk");
    compact("day.vmdk");
    EXPECT_THAT(grainsOf("full.vmdk"), ElementsAre(0, 1, 2, 4, 60, 125, 127));
    EXPECT_THAT(grainsOf("day.vmdk"), ElementsAre(0, 1, 2, 3, 4, 60, 125, 126, 127));
}

TEST_F(DiskCompactionTest, LeavesSoundFiles) {
    for (DiskKind const& kind : {kindNamed("compressed"), kindNamed("encryptedCompressed")}) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        compact("day.vmdk");
        EXPECT_EQ("", checkExtent(toBuffer(bytesOf("day.vmdk"))).text());
    }
}

TEST_F(DiskCompactionTest, GoesOnFromWhereverItWasKilled) {
    for (DiskKind const& kind :
         {kindNamed("plain"), kindNamed("compressedSplit"), kindNamed("encryptedSplitOnDemand")}) {
        SCOPED_TRACE(kind.name);
        bool hasEnded = true;
        for (int done = 0; hasEnded; ++done) {
            SCOPED_TRACE(done);
            makeChain(kind);
            std::vector<std::string> const before = names();
            steps.left = done;
            hasEnded = false;
            try {
                compact("full.vmdk");
            } catch (yx::CIOError const& error) {
                EXPECT_EQ("Ended.", error.getMessage().toStdString());
                hasEnded = true;
            }
            steps.left = 1 << 30;
            expectReadAsBefore();
            EXPECT_EQ(hasEnded, won(compact("full.vmdk")) > 0);
            expectReadAsBefore();
            EXPECT_EQ(before, names());
        }
    }
}

TEST_F(DiskCompactionTest, GoesOnAfterEveryFailureOfTheFiles) {
    FileOperationKinds const all{Kind::Write, Kind::SetLength, Kind::Flush, Kind::Read, Kind::Open};
    for (DiskKind const& kind : {kindNamed("compressed"), kindNamed("split")}) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        auto const counted = yx::makeObject<FaultyFileSystem>(files.get());
        compact("full.vmdk", counted.get());
        int const count = counted->count(all);
        ASSERT_GT(count, 30);
        for (int nth = 1; nth <= count; nth += 1 + count / (kIsSanitized ? 5 : 20)) {
            SCOPED_TRACE(nth);
            makeChain(kind);
            std::vector<std::string> const before = names();
            auto const faulty = yx::makeObject<FaultyFileSystem>(files.get());
            faulty->add({.kinds = all,
                         .nth = nth,
                         .sticky = true,
                         .effect = nth % 2 == 0 ? Fault::Effect::Tear : Fault::Effect::Refuse});
            try {
                IgnoredExceptionCapture const ignored;
                compact("full.vmdk", faulty.get());
                // What is left is to take the lock file away.
                EXPECT_GT(nth, count - 4);
            } catch (yx::CError const& error) {
                error.nop();
            }
            expectReadAsBefore();
            compact("full.vmdk");
            expectReadAsBefore();
            EXPECT_EQ(0, won(compact("full.vmdk")));
            EXPECT_EQ(before, names());
        }
    }
}

/// What a kill leaves beside a file has all of its bytes, perhaps.
TEST_F(DiskCompactionTest, LeftoverIsNoDiskAndGoesWithTheFile) {
    makeChain({});
    std::string const leftover = "day.vmdk.kelm-part";
    fs::copy(path("day.vmdk"), path(leftover));
    kelm::host::DiskRelations const relations(files.get(), {uri("")});
    EXPECT_THAT(relations.findChildren(uri("full.vmdk")), ElementsAre(uri("day.vmdk")));
    compact("day.vmdk");
    EXPECT_FALSE(fs::exists(path(leftover)));
    fs::copy(path("day.vmdk"), path(leftover));
    EXPECT_EQ(0, won(compact("day.vmdk")));
    EXPECT_FALSE(fs::exists(path(leftover)));
    fs::copy(path("day.vmdk"), path(leftover));
    kelm::host::DiskDeletionOptions deletion;
    deletion.lookIn = {uri("")};
    kelm::host::DiskDeletion(files.get(), steps, uri("day.vmdk"), deletion).run();
    EXPECT_THAT(names(), ElementsAre("full.vmdk"));
}

TEST_F(DiskCompactionTest, DigestsStayTrue) {
    for (DiskKind const& kind : {kindNamed("plain"), kindNamed("encryptedCompressed")}) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        {
            SafeDisk disk(files.get(), uri("full.vmdk"), kReadWrite, password);
            kelm::host::DigestMaking digests(files.get(), disk);
            digests.finish(kSmallestDiskBytes, options.work);
        }
        Bytes const before = bytesOf("full.vmdk.digests");
        EXPECT_GT(won(compact("full.vmdk")), 0);
        expectReadAsBefore();
        EXPECT_TRUE(before == bytesOf("full.vmdk.digests"));
        SafeDisk disk(files.get(), uri("full.vmdk"), kReadOnly, password);
        auto const digests = kelm::host::DiskDigests::open(files.get(), disk);
        ASSERT_TRUE(digests.areUpToDate());
        // They name the zeros, too, which therefore stay.
        for (int grain = 0; grain < kSmallestDiskBytes / kGrainBytes; ++grain)
            EXPECT_EQ(digests.file->find(grain).has_value(), disk.isGrainWrittenHere(grain))
                << grain;
        EXPECT_TRUE(disk.isGrainWrittenHere(3));
    }
}

TEST_F(DiskCompactionTest, ZerosGoWhereDigestsAreOutOfDate) {
    makeChain({});
    {
        SafeDisk disk(files.get(), uri("full.vmdk"), kReadWrite, password);
        kelm::host::DigestMaking digests(files.get(), disk);
        digests.finish(kSmallestDiskBytes, options.work);
    }
    {
        SafeDisk disk(files.get(), uri("full.vmdk"), kReadWrite, password);
        writeGrain(disk, 0, zeros(kGrainBytes));
    }
    compact("full.vmdk");
    SafeDisk disk(files.get(), uri("full.vmdk"), kReadOnly, password);
    EXPECT_FALSE(disk.isGrainWrittenHere(0));
    EXPECT_FALSE(disk.isGrainWrittenHere(3));
}

TEST_F(DiskCompactionTest, RefusesWhileTheDiskIsInUse) {
    makeChain({});
    auto const before = sizes();
    {
        SafeDisk const reader(files.get(), uri("full.vmdk"), kReadOnly, "");
        EXPECT_THROW(compact("full.vmdk"), yx::CLockFileError);
    }
    {
        SafeDisk const writer(files.get(), uri("full.vmdk"), kReadWrite, "");
        EXPECT_THROW(compact("full.vmdk"), yx::CLockFileError);
    }
    EXPECT_EQ(before, sizes());
}

TEST_F(DiskCompactionTest, RefusesADiskWithOtherWorkThatWasEnded) {
    makeChain({});
    kelm::host::DiskNote note;
    note.work = kelm::host::DiskNote::Work::Deleting;
    note.files.emplace_back(uri("full.vmdk"), yx::CURI());
    note.write(steps);
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "The disk is being deleted. 'kelm delete' goes on with it.",
                              {{"uri", uriText(uri("full.vmdk"))}}, [&] { compact("full.vmdk"); }));
    note.remove(steps);
    std::ofstream(path("full.vmdk.repairing")) << "begun";
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotAllowed,
                              "A repair of the disk did not come to its end.",
                              {{"uri", uriText(uri("full.vmdk"))}}, [&] { compact("full.vmdk"); }));
    fs::remove(path("full.vmdk.repairing"));
    EXPECT_GT(won(compact("full.vmdk")), 0);
}

TEST_F(DiskCompactionTest, EndsTheWayBackOfARepair) {
    makeChain({});
    std::string const undo = "full.vmdk.repaired";
    std::ofstream(path(undo)) << "sectors of the old file";
    EXPECT_GT(won(compact("full.vmdk")), 0);
    EXPECT_FALSE(fs::exists(path(undo)));
    std::ofstream(path(undo)) << "sectors of this file";
    EXPECT_EQ(0, won(compact("full.vmdk")));
    EXPECT_TRUE(fs::exists(path(undo)));
}

TEST_F(DiskCompactionTest, KeepsTheRightsOfTheFile) {
    makeChain({});
    constexpr mode_t kRights = 0640;
    ASSERT_EQ(0, ::chmod(path("full.vmdk").c_str(), kRights));
    EXPECT_GT(won(compact("full.vmdk")), 0);
    struct stat status = {};
    ASSERT_EQ(0, ::stat(path("full.vmdk").c_str(), &status));
    EXPECT_EQ(kRights, status.st_mode & 07777);
}

TEST_F(DiskCompactionTest, LeavesADamagedDiskAsItIs) {
    makeChain(kindNamed("compressed"));
    Bytes bytes = bytesOf("full.vmdk");
    auto const place = checkExtent(toBuffer(bytes)).grains.at(60).posSectors * 512;
    bytes[place + 60] = static_cast<unsigned char>(~bytes[place + 60]);
    std::ofstream(path("full.vmdk"), std::ios::binary)
        .write(reinterpret_cast<char const*>(bytes.data()),
               static_cast<std::streamsize>(bytes.size()));
    try {
        compact("full.vmdk");
        FAIL() << "It was compacted.";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::CorruptData, error.getIOCode());
        EXPECT_EQ((Props{{"uri", uriText(uri("full.vmdk"))}, {"grain", "60"}}), propsOf(error));
    }
    EXPECT_TRUE(bytes == bytesOf("full.vmdk"));
    EXPECT_THAT(names(), ElementsAre("day.vmdk", "full.vmdk"));
}

TEST_F(DiskCompactionTest, AsksForAPassword) {
    makeChain(kindNamed("encrypted"));
    auto const before = sizes();
    password = "";
    EXPECT_THROW(compact("full.vmdk"), yx::CError);
    EXPECT_EQ(before, sizes());
}

TEST_F(DiskCompactionTest, SaysThatADiskIsNotThere) {
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", uriText(uri("none.vmdk"))}}, [&] { compact("none.vmdk"); }));
    EXPECT_THAT(names(), ElementsAre());
}

TEST_F(DiskCompactionTest, AsksForRoomBeforeItBegins) {
    fs::create_directory(path("small"));
    SmallDevice const device(folder.path() / "small");
    if (!device.isMounted())
        GTEST_SKIP() << "mounting a small file system is not permitted here";
    make("small/disk.vmdk", "", {});
    overwrite("small/disk.vmdk");
    auto const lengthBytes = fs::file_size(path("small/disk.vmdk"));
    try {
        compact("small/disk.vmdk");
        FAIL() << "It was compacted.";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NoSpace, error.getIOCode());
        EXPECT_EQ("There is not enough room for the compacted file.",
                  error.getMessage().toStdString());
        Props const props = propsOf(error);
        ASSERT_EQ(3U, props.size());
        EXPECT_EQ(std::pair(std::string("uri"), uriText(uri("small")) + "/"), props[0]);
        EXPECT_EQ(
            std::pair(std::string("neededBytes"), std::to_string(lengthBytes - 2 * kGrainBytes)),
            props[1]);
        EXPECT_EQ("freeBytes", props[2].first);
        EXPECT_LT(std::stoll(props[2].second), std::stoll(props[1].second));
    }
    EXPECT_EQ(lengthBytes, fs::file_size(path("small/disk.vmdk")));
}

TEST_F(DiskCompactionTest, ReportsItsProgress) {
    makeChain(kindNamed("split"));
    std::vector<std::pair<__int64, __int64>> done;
    options.work.progress = [&](__int64 doneBytes, __int64 totalBytes) {
        EXPECT_LE(doneBytes, totalBytes);
        done.emplace_back(doneBytes, totalBytes);
    };
    compact("full.vmdk");
    ASSERT_GE(done.size(), 2U);
    EXPECT_EQ(done.back().first, done.back().second);
}

TEST_F(DiskCompactionTest, CancelledLeavesItAsItWas) {
    makeChain(kindNamed("split"));
    auto const before = sizes();
    kelm::host::CancelFlag flag;
    options.work.cancel = &flag;
    options.work.progress = [&](__int64, __int64) { flag.set(); };
    EXPECT_THROW(compact("full.vmdk"), kelm::host::CancelledError);
    EXPECT_EQ(before, sizes());
    expectReadAsBefore();
}

} // namespace
} // namespace disk_compaction_test
} // namespace test_support
