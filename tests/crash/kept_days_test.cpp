// Some days of backups, each a child of the one before: made, and made independent of their parents,
// while the power is cut before the end of every flush. No day that was kept is ever unreadable to somebody who
// only reads, nor anything else than it was.

#include <map>

#include "host/disk/parent_link.h"
#include "host/transfer/disk_flattening.h"
#include "tests/support/log_capture.h"
#include "tests/support/power_cut.h"
#include "tests/support/safe_disks.h"

namespace test_support {
namespace kept_days_test {

namespace {

constexpr int kDays = 3;

/// Those that hold data; the last lies in the second file of a split disk.
constexpr int kGrains[] = {0, 1, 60};

constexpr PowerCut::Loss kLossesOfDays[] = {PowerCut::Loss::SomeChanges,
                                            PowerCut::Loss::AnySectors};

class KeptDays : public DiskTest, public testing::WithParamInterface<char const*> {
protected:
    static std::string nameOf(int day) { return "day" + std::to_string(day) + ".vmdk"; }

    static std::unique_ptr<SafeDisk> openDay(yx::IFileSystem* fileSystem, int day,
                                             yx::IIOStream::Access access) {
        return std::make_unique<SafeDisk>(fileSystem, uriOf(nameOf(day)), access, "", 1);
    }

    /// Every day all but one of the grains change.
    static Bytes const& contentOf(int day, int index) {
        static std::map<std::pair<int, int>, Bytes> contents;
        if (day > 0 && day % std::ssize(kGrains) == index)
            --day;
        Bytes& content = contents[{day, index}];
        if (content.empty())
            content = textPattern(kGrainBytes, static_cast<unsigned int>(10 * day + index));
        return content;
    }

    void makeDay(int day) {
        yx::P<FileGuard> const guard = yx::makeObject<FileGuard>(record.get(), false);
        guard->keep();
        NewDisk request = requestFor(kindNamed(GetParam()));
        request.isToBeFilled = true;
        if (day > 0)
            request.parent = uriOf(nameOf(day - 1));
        std::unique_ptr<SafeDisk> const disk =
            SafeDisk::create(guard.get(), uriOf(nameOf(day)), request);
        for (int index = 0; index < std::ssize(kGrains); ++index) {
            Bytes const& content = contentOf(day, index);
            if (day == 0 || content != contentOf(day - 1, index))
                writeGrain(*disk, kGrains[index], content);
        }
        disk->markComplete();
    }

    /// Gives a day all that its parents hold, after which it needs them no longer.
    void flattenDay(int day) {
        cutDuring([&] {
            kelm::host::makeIndependentOfParent(*openDay(record.get(), day, kReadWrite), {});
        });
        kelm::host::dropParentLink(*openDay(files.get(), day, kReadWrite));
    }

    /// Does it, and looks at what a cut during every flush of it leaves of the days.
    template <class Work>
    void cutDuring(Work const& work) {
        record->clear();
        FileImages const start = imagesOf(*files);
        work();
        PowerCut cut(start, record->entries());
        while (cut.step()) {
            if (cut.operations() == record->entries().size() ||
                record->entries()[cut.operations()].operation.kind != FileOperation::Kind::Flush)
                continue;
            for (PowerCut::Loss const loss : kLossesOfDays) {
                PowerCut::State const state = cut.makeState(loss, m_random);
                if (state.isNew)
                    expectDaysIn(state.files);
            }
        }
    }

    void expectDaysIn(FileImages const& images) {
        ++m_states;
        putImages(*m_left, images);
        for (int const day : m_kept) {
            SCOPED_TRACE("state " + std::to_string(m_states) + ", day " + std::to_string(day));
            std::unique_ptr<SafeDisk> const disk = openDay(m_left.get(), day, kReadOnly);
            for (int index = 0; index < std::ssize(kGrains); ++index)
                ASSERT_TRUE(sameBytes(contentOf(day, index), readGrain(*disk, kGrains[index])));
        }
    }

    yx::P<RecordingFileSystem> record =
        yx::makeObject<RecordingFileSystem>(files.get(), RecordingFileSystem::Content::Keep);
    std::vector<int> m_kept;
    int m_states = 0;

private:
    yx::P<yx::CMemoryFileSystem> m_left = yx::makeObject<yx::CMemoryFileSystem>();
    std::mt19937 m_random{5};
};

TEST_P(KeptDays, AreReadableWhereverThePowerIsCut) {
    LogCapture const quiet;
    for (int day = 0; day < kDays; ++day) {
        SCOPED_TRACE("making day " + std::to_string(day));
        cutDuring([&] { makeDay(day); });
        m_kept.push_back(day);
        ASSERT_FALSE(HasFatalFailure());
    }
    SCOPED_TRACE("flattening");
    flattenDay(1);
    m_kept.erase(m_kept.begin());
    files->deleteFile(uriOf(nameOf(0)), false);
    flattenDay(kDays - 1);
    EXPECT_GT(m_states, 30);
}

INSTANTIATE_TEST_SUITE_P(Kinds, KeptDays, testing::Values("compressed", "compressedSplitOnDemand"),
                         [](auto const& kind) { return std::string(kind.param); });

} // namespace
} // namespace kept_days_test
} // namespace test_support
