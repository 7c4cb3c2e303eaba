#include "host/digest/disk_digests.h"
#include "tests/host/digest/digest_fixture.h"
#include "tests/host/host_fixture.h"
#include "tests/support/log_capture.h"
#include "tests/support/model_rounds.h"
#include "tests/support/power_cut.h"

using kelm::host::DigestKeys;
using kelm::host::DigestMaking;
using kelm::host::DigestState;
using kelm::host::DiskDigests;
using kelm::host::GrainHasher;

namespace test_support {
namespace digest_power_cut_test {
namespace {

constexpr unsigned int kSeed = 20310505;

/// Cuts the power after every step of the life of a disk with digests.
class DigestPowerCut : public HostTest {
protected:
    void makeDigests(yx::IFileSystem& fileSystem, char const* name, char const* password) {
        SafeDisk disk(&fileSystem, uriOf(name), kReadOnly, password);
        DigestMaking(&fileSystem, disk).finish(disk.getSizeBytes(), {});
    }

    /// Writes, makes digests, goes on writing in the same opening, and copies from the parent.
    void live(yx::IFileSystem& fileSystem, char const* password) {
        {
            SafeDisk disk(&fileSystem, uriOf("child.vmdk"), kReadWrite, password);
            writeGrain(disk, 1, pattern(kGrainBytes, 10));
            disk.flush();
            writeGrain(disk, 2, pattern(kGrainBytes, 11));
            DigestMaking(&fileSystem, disk).finish(disk.getSizeBytes(), {});
            writeGrain(disk, 1, pattern(kGrainBytes, 12));
            disk.flush();
        }
        makeDigests(fileSystem, "child.vmdk", password);
        SafeDisk disk(&fileSystem, uriOf("child.vmdk"), kReadWrite, password);
        disk.makeGrainIndependentOfParent(5);
        disk.flush();
        DigestMaking(&fileSystem, disk).finish(disk.getSizeBytes(), {});
    }

    /// Whether digests that count as up to date are those of what is there.
    testing::AssertionResult haveNoWrongDigests(char const* password) {
        std::unique_ptr<SafeDisk> disk;
        try {
            disk = openSafe("child.vmdk", kReadOnly, password);
        } catch (yx::CError const& error) {
            return testing::AssertionFailure() << "the disk cannot be opened: " << error.what();
        }
        DiskDigests const digests = DiskDigests::open(files.get(), *disk);
        ++m_states[digests.state];
        if (!digests.areUpToDate())
            return testing::AssertionSuccess();
        GrainHasher hasher((DigestKeys(disk->getDisk())));
        for (int grain = 0; grain < 10; ++grain) {
            auto const digest = digests.file->find(grain);
            if (digest.has_value() != disk->isGrainWrittenHere(grain))
                return testing::AssertionFailure() << "grain " << grain << " is held or is not";
            if (!digest)
                continue;
            Bytes const content = readGrain(*disk, grain);
            if (*digest != hasher.hash(grain, content.data(), kGrainBytes, kGrainBytes))
                return testing::AssertionFailure() << "grain " << grain;
        }
        return testing::AssertionSuccess();
    }

    std::map<DigestState, int> m_states;
};

TEST_F(DigestPowerCut, LeavesTrueDigestsOrNoneThatCount) {
    LogCapture const quiet;
    for (char const* const name : {"plain", "compressed", "encrypted"}) {
        DiskKind const kind = kindNamed(name);
        files = yx::makeObject<yx::CMemoryFileSystem>();
        writeTo(*createSafe(kind, "parent.vmdk"), 0, pattern(8 * kGrainBytes, 1));
        writeGrain(*createSafe(kind, "child.vmdk", "parent.vmdk"), 0, pattern(kGrainBytes, 2));
        makeDigests(*files, "child.vmdk", kind.password);
        FileImages const start = imagesOf(*files);
        auto const recording =
            yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
        live(*recording, kind.password);
        std::vector<RecordingFileSystem::Entry> const record = recording->entries();

        std::mt19937 random(kSeed);
        for (unsigned int round = 0; round < modelRounds(); ++round) {
            PowerCut cut(start, record);
            while (cut.step()) {
                if (!cut.hasChanged())
                    continue;
                for (PowerCut::Loss const loss : PowerCut::kLosses) {
                    PowerCut::State const state = cut.makeState(loss, random);
                    if (!state.isNew)
                        continue;
                    putImages(*files, state.files);
                    ASSERT_TRUE(haveNoWrongDigests(kind.password))
                        << name << ", operation " << cut.operations() << ", loss "
                        << static_cast<int>(loss) << ", seed " << kSeed;
                }
            }
        }
    }
    EXPECT_GT(m_states[DigestState::Missing], 0);
    EXPECT_GT(m_states[DigestState::OutOfDate], 0);
    EXPECT_GT(m_states[DigestState::UpToDate], 0);
}

} // namespace
} // namespace digest_power_cut_test
} // namespace test_support
