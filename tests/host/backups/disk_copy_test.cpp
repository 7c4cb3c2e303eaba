#include "host/backups/disk_copy.h"

#include <filesystem>
#include <fstream>

#include <gmock/gmock.h>

#include "host/disk/descriptor_checksum.h"
#include "host/store/file_names.h"
#include "tests/support/ending_steps.h"
#include "tests/support/expect_error.h"
#include "tests/support/safe_disks.h"
#include "tests/support/small_device.h"
#include "tests/support/temp_directory.h"
#include "yx/native_file_system.h"

namespace test_support {
namespace disk_copy_test {
namespace {

namespace fs = std::filesystem;

using kelm::host::DiskCopy;
using kelm::host::DiskCopyOptions;
using testing::ElementsAre;

/// "full.vmdk" and its child "day.vmdk" in one folder, "other" beside them.
class DiskCopyTest : public ::testing::Test {
protected:
    DiskCopyTest() { files = yx::makeObject<yx::CNativeFileSystem>(); }

    yx::CURI uri(std::string const& name) const {
        return kelm::host::uriFromArgument((folder.path() / name).string());
    }

    static std::string uriText(yx::CURI const& file) { return file.toString(true).toStdString(); }

    void make(std::string const& name, std::string const& parent, int grain, DiskKind const& kind) {
        NewDisk request = requestFor(kind);
        if (!parent.empty())
            request.parent = uri(parent);
        auto const guard = yx::makeObject<FileGuard>(files.get(), false);
        guard->keep();
        auto const disk = SafeDisk::create(guard.get(), uri(name), request);
        writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
    }

    void makeChain(DiskKind const& kind) {
        for (fs::directory_entry const& entry : fs::directory_iterator(folder.path()))
            fs::remove_all(entry.path());
        fs::create_directory(folder.path() / "other");
        make("full.vmdk", "", 0, kind);
        make("day.vmdk", "full.vmdk", 1, kind);
    }

    static Bytes contentOf(int grain) {
        return pattern(kGrainBytes, static_cast<unsigned int>(grain) + 1);
    }

    void expectIsReadable(std::string const& name, char const* password) {
        SafeDisk disk(files.get(), uri(name), kReadOnly, password);
        EXPECT_EQ(kelm::host::ChecksumState::Valid,
                  kelm::host::getChecksumState(*disk.getDisk().getDescriptor(), uri(name)))
            << name;
        for (int grain = 0; grain < 2; ++grain)
            EXPECT_TRUE(readGrain(disk, grain) == contentOf(grain)) << name << " " << grain;
    }

    std::vector<yx::CURI> copy(std::string const& from, std::string const& to) {
        return DiskCopy(files.get(), steps, uri(from), uri(to), options).run();
    }

    /// All names below the folder, in their order.
    std::vector<std::string> names() const {
        std::vector<std::string> found;
        for (fs::directory_entry const& entry : fs::recursive_directory_iterator(folder.path())) {
            if (entry.is_regular_file())
                found.push_back(fs::relative(entry.path(), folder.path()).string());
        }
        std::sort(found.begin(), found.end());
        return found;
    }

    TempDirectory folder;
    yx::P<yx::CNativeFileSystem> files;
    EndingSteps steps;
    DiskCopyOptions options;
};

TEST_F(DiskCopyTest, EveryKindReadsAsWhatItWasCopiedFrom) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        makeChain(kind);
        std::vector<yx::CURI> const made = copy("day.vmdk", "other/new.vmdk");
        EXPECT_EQ(uri("other/new.vmdk"), made.front());
        expectIsReadable("day.vmdk", kind.password);
        expectIsReadable("other/new.vmdk", kind.password);
        fs::rename(folder.path() / "day.vmdk", folder.path() / "away");
        expectIsReadable("other/new.vmdk", kind.password);
    }
}

TEST_F(DiskCopyTest, NamesAllFilesAnew) {
    makeChain(kindNamed("split"));
    EXPECT_THAT(copy("day.vmdk", "other/new.vmdk"),
                ElementsAre(uri("other/new.vmdk"), uri("other/new-s00000.vmdk"),
                            uri("other/new-s00001.vmdk"), uri("other/new-s00002.vmdk")));
    EXPECT_THAT(names(),
                ElementsAre("day-s00000.vmdk", "day-s00001.vmdk", "day-s00002.vmdk", "day.vmdk",
                            "full-s00000.vmdk", "full-s00001.vmdk", "full-s00002.vmdk", "full.vmdk",
                            "other/new-s00000.vmdk", "other/new-s00001.vmdk",
                            "other/new-s00002.vmdk", "other/new.vmdk"));
}

TEST_F(DiskCopyTest, GoesOnFromWhereverItWasKilled) {
    for (DiskKind const& kind : {kindNamed("plain"), kindNamed("compressedSplit")}) {
        SCOPED_TRACE(kind.name);
        for (int done = 0;; ++done) {
            SCOPED_TRACE(done);
            makeChain(kind);
            steps.left = done;
            bool hasEnded = false;
            try {
                copy("day.vmdk", "other/new.vmdk");
            } catch (yx::CIOError const& error) {
                EXPECT_EQ("Ended.", error.getMessage().toStdString());
                hasEnded = true;
            }
            steps.left = 1 << 30;
            expectIsReadable("day.vmdk", kind.password);
            if (!hasEnded)
                break;
            copy("day.vmdk", "other/new.vmdk");
            expectIsReadable("other/new.vmdk", kind.password);
            std::vector<std::string> const found = names();
            for (std::string const& name : found)
                EXPECT_EQ(".vmdk", fs::path(name).extension()) << name;
        }
    }
}

TEST_F(DiskCopyTest, FailureLeavesNothingOfTheCopy) {
    makeChain(kindNamed("split"));
    std::vector<std::string> const before = names();
    steps.isKill = false;
    constexpr int kStepsUntilItIsWhole = 5;
    for (int done = 0; done < kStepsUntilItIsWhole; ++done) {
        SCOPED_TRACE(done);
        steps.left = done;
        EXPECT_TRUE(throwsIOError(yx::CIOError::NoSpace, "Ended.", {},
                                  [&] { copy("day.vmdk", "other/new.vmdk"); }));
        EXPECT_EQ(before, names());
    }
    // The whole copy stays, and with it the note that could not be taken away.
    steps.left = kStepsUntilItIsWhole;
    EXPECT_THROW(copy("day.vmdk", "other/new.vmdk"), yx::CIOError);
    expectIsReadable("other/new.vmdk", "");
    steps.left = 1 << 30;
    copy("day.vmdk", "other/new.vmdk");
    EXPECT_EQ(before.size() + 4, names().size());
}

TEST_F(DiskCopyTest, ReplacesNothing) {
    makeChain(kindNamed("split"));
    for (char const* const name : {"other/new.vmdk", "other/new-s00001.vmdk"}) {
        std::ofstream(folder.path() / name) << "mine";
        EXPECT_TRUE(throwsIOError(yx::CIOError::AlreadyExists, "The file exists already.",
                                  {{"uri", uriText(uri(name))}},
                                  [&] { copy("day.vmdk", "other/new.vmdk"); }));
        fs::remove(folder.path() / name);
    }
    EXPECT_TRUE(throwsIOError(yx::CIOError::NotFound, "The disk does not exist.",
                              {{"uri", uriText(uri("none.vmdk"))}},
                              [&] { copy("none.vmdk", "other/new.vmdk"); }));
}

TEST_F(DiskCopyTest, ReadersMayGoOnAndWritersMayNot) {
    makeChain({});
    {
        SafeDisk const reader(files.get(), uri("day.vmdk"), kReadOnly, "");
        copy("day.vmdk", "other/new.vmdk");
    }
    SafeDisk const writer(files.get(), uri("day.vmdk"), kReadWrite, "");
    EXPECT_THROW(copy("day.vmdk", "other/newer.vmdk"), yx::CLockFileError);
    EXPECT_FALSE(fs::exists(folder.path() / "other/newer.vmdk"));
}

TEST_F(DiskCopyTest, AsksForRoomBeforeAnythingIsMade) {
    makeChain({});
    {
        SafeDisk disk(files.get(), uri("day.vmdk"), kReadWrite, "");
        for (int grain = 0; grain < 40; ++grain)
            writeGrain(disk, grain, contentOf(grain));
    }
    fs::create_directory(folder.path() / "small");
    SmallDevice const device(folder.path() / "small");
    if (!device.isMounted())
        GTEST_SKIP() << "mounting a small file system is not permitted here";
    try {
        copy("day.vmdk", "small/new.vmdk");
        FAIL() << "It was copied.";
    } catch (yx::CIOError const& error) {
        EXPECT_EQ(yx::CIOError::NoSpace, error.getIOCode());
        EXPECT_EQ("There is not enough room for the copy.", error.getMessage().toStdString());
        Props const props = propsOf(error);
        ASSERT_EQ(3U, props.size());
        EXPECT_EQ(std::pair(std::string("uri"), uriText(uri("small")) + "/"), props[0]);
        EXPECT_EQ("neededBytes", props[1].first);
        EXPECT_GE(std::stoll(props[1].second), 40 * kGrainBytes);
        EXPECT_EQ("freeBytes", props[2].first);
        EXPECT_LE(std::stoll(props[2].second), 1 << 20);
    }
    EXPECT_TRUE(fs::is_empty(folder.path() / "small"));
}

TEST_F(DiskCopyTest, ReportsItsProgress) {
    makeChain(kindNamed("split"));
    std::vector<__int64> done;
    options.work.progress = [&](__int64 doneBytes, __int64 totalBytes) {
        EXPECT_LE(doneBytes, totalBytes);
        done.push_back(doneBytes);
    };
    copy("day.vmdk", "other/new.vmdk");
    ASSERT_GE(done.size(), 3U);
    EXPECT_TRUE(std::is_sorted(done.begin(), done.end()));
}

} // namespace
} // namespace disk_copy_test
} // namespace test_support
