// What is stored can be read while the device has no room for changes, and a sync that failed is
// never forgotten.

#include <gmock/gmock.h>

#include "tests/host/host_fixture.h"
#include "tests/support/faulty_file_system.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace {

using Kind = FileOperation::Kind;

constexpr int kStoredGrains = 40;

class FullDevice : public HostTest {
protected:
    std::unique_ptr<SafeDisk> openOnFaulty(DiskKind const& kind) {
        return std::make_unique<SafeDisk>(faulty.get(), uriOf("disk.vmdk"), kReadWrite,
                                          kind.password, 1);
    }

    /// Grains 0 to 39 are stored and flushed, every other one of a parent with data in all of them.
    std::unique_ptr<SafeDisk> makeStored(DiskKind const& kind, bool isChild = false) {
        files = yx::makeObject<yx::CMemoryFileSystem>();
        faulty = yx::makeObject<FaultyFileSystem>(files.get());
        if (isChild) {
            std::unique_ptr<SafeDisk> const parent = createSafe(kind, "parent.vmdk");
            for (int grain = 0; grain < kStoredGrains; ++grain)
                writeGrain(*parent, grain, contentOf(grain));
        }
        createSafe(kind, "disk.vmdk", isChild ? "parent.vmdk" : "");
        std::unique_ptr<SafeDisk> disk = openOnFaulty(kind);
        for (int grain = 0; grain < kStoredGrains; grain += isChild ? 2 : 1)
            writeGrain(*disk, grain, contentOf(grain));
        disk->flush();
        return disk;
    }

    void fill() {
        faulty->add({.kinds = {Kind::Write}, .sticky = true, .code = yx::CIOError::NoSpace});
    }

    static Bytes contentOf(int grain) {
        return textPattern(kGrainBytes, static_cast<unsigned int>(grain));
    }

    /// Writes until the device refuses.
    void writeUntilRefused(SafeDisk& disk, bool isOnDemand = false) {
        bool isRefused = false;
        for (int grain = 60; grain < 128 && !isRefused; ++grain) {
            try {
                writeGrain(disk, grain, pattern(kGrainBytes, 7));
            } catch (yx::CIOError const& error) {
                EXPECT_EQ(yx::CIOError::NoSpace, error.getIOCode());
                isRefused = true;
            }
        }
        // Where a file could not be made, nothing is left in memory.
        if (!isOnDemand) {
            EXPECT_THROW(disk.flush(), yx::CIOError);
        }
    }

    yx::P<FaultyFileSystem> faulty;
    IgnoredExceptionCapture ignored;
    LogCapture log;
};

TEST_F(FullDevice, EveryStoredGrainCanBeRead) {
    for (bool const isChild : {false, true}) {
        for (DiskKind const& kind : allDiskKinds()) {
            // To stretch a password takes most of the time.
            if (isChild && kind.password[0] != '\0')
                continue;
            SCOPED_TRACE(std::string(kind.name) + (isChild ? ", child" : ""));
            std::unique_ptr<SafeDisk> const disk = makeStored(kind, isChild);
            fill();
            writeUntilRefused(*disk, kind.onDemand);
            for (int grain = 0; grain < kStoredGrains; ++grain) {
                ASSERT_TRUE(sameBytes(contentOf(grain), readGrain(*disk, grain))) << grain;
                EXPECT_TRUE(disk->isGrainWritten(grain)) << grain;
                EXPECT_EQ(!isChild || grain % 2 == 0, disk->isGrainWrittenHere(grain)) << grain;
                Buffer prepared;
                EXPECT_TRUE(disk->tryReadPreparedGrain(grain, prepared)) << grain;
            }
            EXPECT_FALSE(disk->isGrainWritten(50));
            EXPECT_TRUE(sameBytes(zeros(kGrainBytes), readGrain(*disk, 50)));
            // Across grains, at once.
            Bytes const range = readFrom(*disk, 3 * kGrainBytes + 100, 2 * kGrainBytes);
            EXPECT_TRUE(
                sameBytes(slice(contentOf(4), 0, 1000), slice(range, kGrainBytes - 100, 1000)));
        }
    }
}

TEST_F(FullDevice, ChangesAreStoredOnceThereIsRoom) {
    for (DiskKind const& kind : allDiskKinds()) {
        SCOPED_TRACE(kind.name);
        std::unique_ptr<SafeDisk> disk = makeStored(kind);
        writeGrain(*disk, 1, pattern(kGrainBytes, 1));
        fill();
        EXPECT_THROW(disk->flush(), yx::CIOError);
        EXPECT_TRUE(sameBytes(contentOf(2), readGrain(*disk, 2)));
        EXPECT_THROW(writeGrain(*disk, 100, pattern(kGrainBytes, 2)), yx::CIOError);
        faulty->clear();
        // A change that was not stored is read from memory, never as it was before.
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*disk, 1)));
        writeGrain(*disk, 3, pattern(kGrainBytes, 3));
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*disk, 3)));
        disk->flush();
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*disk, 1)));
        disk.reset();
        disk = openSafe("disk.vmdk", kReadOnly, kind.password);
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 1), readGrain(*disk, 1)));
        EXPECT_TRUE(sameBytes(contentOf(2), readGrain(*disk, 2)));
        EXPECT_TRUE(sameBytes(pattern(kGrainBytes, 3), readGrain(*disk, 3)));
    }
}

TEST_F(FullDevice, ReadsDoNotTryToWriteAgain) {
    std::unique_ptr<SafeDisk> const disk = makeStored({});
    fill();
    writeUntilRefused(*disk);
    readGrain(*disk, 0);
    int const writes = faulty->count({Kind::Write, Kind::Flush});
    for (int grain = 0; grain < kStoredGrains; ++grain)
        readGrain(*disk, grain);
    EXPECT_EQ(writes, faulty->count({Kind::Write, Kind::Flush}));
}

TEST_F(FullDevice, NobodyElseMayOpenTheDiskMeanwhile) {
    std::unique_ptr<SafeDisk> const disk = makeStored({});
    fill();
    writeUntilRefused(*disk);
    readGrain(*disk, 0);
    EXPECT_THROW(openSafe("disk.vmdk", kReadOnly), yx::CLockFileError);
}

using FailedSync = FullDevice;

TEST_F(FailedSync, IsFinalForTheDisk) {
    for (char const* const name :
         {"plain", "splitOnDemand", "compressed", "compressedSplitOnDemand"}) {
        DiskKind const kind = kindNamed(name);
        std::unique_ptr<SafeDisk> disk = makeStored(kind);
        int syncs = 0;
        {
            int const before = faulty->count({Kind::Flush});
            writeGrain(*disk, 0, pattern(kGrainBytes, 1));
            writeGrain(*disk, 100, pattern(kGrainBytes, 2));
            disk->flush();
            syncs = faulty->count({Kind::Flush}) - before;
        }
        ASSERT_GE(syncs, 2);
        for (int nth = 1; nth <= syncs; ++nth) {
            SCOPED_TRACE(std::string(kind.name) + ", sync " + std::to_string(nth));
            disk = makeStored(kind);
            faulty->add({.kinds = {Kind::Flush}, .nth = nth});
            auto const work = [&] {
                writeGrain(*disk, 0, pattern(kGrainBytes, 1));
                writeGrain(*disk, 100, pattern(kGrainBytes, 2));
                disk->flush();
            };
            EXPECT_THROW(work(), yx::CIOError);
            ASSERT_EQ(1, faulty->hits());
            for (int i = 0; i < 3; ++i) {
                try {
                    disk->flush();
                    ADD_FAILURE() << "the sync is forgotten";
                } catch (yx::CIOError const& error) {
                    EXPECT_EQ(yx::CIOError::IOFailure, error.getIOCode());
                    EXPECT_STREQ("Injected failure.", error.what());
                }
            }
            EXPECT_TRUE(sameBytes(contentOf(5), readGrain(*disk, 5)));
        }
    }
}

} // namespace
} // namespace test_support
