// A disk in one file that was renamed, and whose power is cut while its name is put right.

#include "tests/support/log_capture.h"
#include "tests/support/power_cut.h"
#include "tests/support/safe_disks.h"

namespace test_support {
namespace {

class RenamedDisk : public DiskTest, public testing::WithParamInterface<char const*> {
protected:
    static std::unique_ptr<SafeDisk> openSafe(yx::IFileSystem* fileSystem, std::string const& name,
                                              yx::IIOStream::Access access) {
        return std::make_unique<SafeDisk>(fileSystem, uriOf(name), access, "", 1);
    }

    /// Makes "a.vmdk" and gives it another name.
    void makeRenamed(std::string const& name) {
        {
            yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(files.get(), false);
            guard->keep();
            std::unique_ptr<SafeDisk> const disk =
                SafeDisk::create(guard.get(), uriOf("a.vmdk"), requestFor(kindNamed(GetParam())));
            writeGrain(*disk, 0, before);
            disk->flush();
        }
        files->putFile(uriOf(name), files->getFile(uriOf("a.vmdk")));
        files->deleteFile(uriOf("a.vmdk"), false);
    }

    /// A compressed grain that was on its way may be unreadable until the disk has been opened for
    /// writing.
    static void expectItself(yx::CMemoryFileSystem& state, std::string const& name,
                             Bytes const& first) {
        EXPECT_EQ(first, readGrain(*openSafe(&state, name, kReadOnly), 0));
    }

    static void expectSound(yx::CMemoryFileSystem& state, std::string const& name,
                            Bytes const& first, Bytes const& second, bool secondIsFlushed) {
        std::unique_ptr<SafeDisk> const disk = openSafe(&state, name, kReadOnly);
        EXPECT_EQ(first, readGrain(*disk, 0));
        Bytes const found = readGrain(*disk, 1);
        EXPECT_TRUE(found == second || (!secondIsFlushed && found == zeros(kGrainBytes)));
    }

    Bytes const before = textPattern(kGrainBytes, 1);
    Bytes const after = textPattern(kGrainBytes, 2);
};

TEST_P(RenamedDisk, IsItselfWhereverThePowerIsCut) {
    LogCapture const quiet;
    for (std::string const name : {"b.vmdk", "monday.vmdk"}) {
        SCOPED_TRACE(name);
        makeRenamed(name);
        FileImages const start = imagesOf(*files);
        auto const record =
            yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
        {
            std::unique_ptr<SafeDisk> const disk = openSafe(record.get(), name, kReadWrite);
            writeGrain(*disk, 1, after);
            disk->flush();
        }
        PowerCut cut(start, record->entries());
        std::mt19937 random(7);
        auto const state = yx::makeObject<yx::CMemoryFileSystem>();
        int states = 0;
        while (cut.step()) {
            for (PowerCut::Loss const loss : PowerCut::kLosses) {
                PowerCut::State const left = cut.makeState(loss, random);
                if (!left.isNew)
                    continue;
                ++states;
                putImages(*state, left.files);
                expectItself(*state, name, before);
                { openSafe(state.get(), name, kReadWrite); }
                expectSound(*state, name, before, after, false);
                EXPECT_FALSE(state->fileExists(uriOf("a.vmdk")));
            }
        }
        EXPECT_GT(states, 3);
        expectSound(*files, name, before, after, true);
        files->deleteFile(uriOf(name), false);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, RenamedDisk, testing::Values("plain", "compressed"));

} // namespace
} // namespace test_support
