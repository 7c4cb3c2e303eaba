// Cuts the power after every single operation of seeded histories of every kind of disk, rebuilds
// states in which the files can be found then, and looks at what the disk has become.
//
// KELM_CRASH_ROUNDS multiplies the number of histories.

#include "tests/support/power_cut.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "tests/crash/crash_expectation.h"
#include "tests/support/extent_checker.h"
#include "tests/support/ignored_exception_capture.h"
#include "tests/support/log_capture.h"

namespace test_support {
namespace {

constexpr int kStepsOfAHistory = kIsSanitized ? 9 : 15;
constexpr int kFewestStates = kIsSanitized ? 2000 : 20000;

/// Of so many states, one is also used further.
constexpr int kStatesOfWhichOneIsUsed = 4;

/// More where a state takes less time. Stretching a password takes the most.
unsigned int historiesOf(CrashKind const& kind) {
    if (kind.isEncrypted() || kIsSanitized)
        return 1;
    return kind.isChild ? 4 : 12;
}

unsigned int roundsFromEnvironment() {
    char const* const rounds = std::getenv("KELM_CRASH_ROUNDS");
    return rounds ? std::max(1U, static_cast<unsigned int>(std::atoi(rounds))) : 1U;
}

/// All states that the tests of this file rebuilt.
struct Totals {
    int states = 0;
    int failedReads = 0;
    int failedOpenings = 0;
    int continued = 0;
    int unmarkedExtents = 0;
};

Totals& totals() {
    static Totals instance;
    return instance;
}

std::vector<WayAndKind> waysAndKinds() {
    std::vector<WayAndKind> all;
    for (Way const way : {Way::Safe, Way::Bare}) {
        for (CrashKind const& kind : allCrashKinds())
            all.push_back({way, kind});
    }
    return all;
}

/// One history of one disk, and all cuts into it.
class Cuts {
public:
    Cuts(WayAndKind const& parameter, unsigned int seed)
        : m_way(parameter.way), m_kind(parameter.kind), m_random(seed) {
        if (m_way == Way::Bare)
            makeDisk(m_kind, m_live.get());
        else
            makeParent(m_kind, m_live.get());
        m_start = imagesOf(*m_live);
        m_record =
            yx::makeObject<RecordingFileSystem>(m_live.get(), RecordingFileSystem::Content::Keep);
        m_history =
            std::make_unique<CrashHistory>(m_way, m_kind, *m_record, seed, kStepsOfAHistory);
    }

    void run() {
        PowerCut cut(m_start, m_record->entries());
        m_extentStarts = extentStarts(m_live.get());
        CrashExpectation expectation(m_way, m_kind, *m_history, m_extentStarts);
        m_expectation = &expectation;
        do {
            if (!cut.hasChanged())
                continue;
            expectation.moveTo(cut.operations());
            for (PowerCut::Loss const loss : PowerCut::kLosses) {
                PowerCut::State const state = cut.makeState(loss, m_random);
                if (!state.isNew)
                    continue;
                SCOPED_TRACE("after operation " + std::to_string(cut.operations()) + ", loss " +
                             std::to_string(static_cast<int>(loss)));
                checkState(state.files);
                if (testing::Test::HasFailure())
                    return;
            }
        } while (cut.step());
    }

private:
    void checkState(FileImages const& images) {
        ++totals().states;
        putImages(*m_files, images);
        findUnmarkedExtents(images);
        std::unique_ptr<CrashDisk> disk = open(kReadOnly, false);
        if (!disk)
            return;
        std::vector<Bytes> const before = readGrains(*disk);
        disk.reset();
        if (totals().states % kStatesOfWhichOneIsUsed == 0 && m_expectation->isCreated())
            continueWork(before);
    }

    /// Finds the extent files, made on demand, that hold zeros where their header is to be. Nothing
    /// marks such a file as the disk's, so that nobody may touch it, and its extent stays unusable.
    /// A device leaves that only if it lets a file grow before it has its first sector.
    void findUnmarkedExtents(FileImages const& images) {
        m_isUnmarked.assign(m_extentStarts.size() - 1, false);
        if (m_way != Way::Safe || !m_kind.disk.onDemand)
            return;
        for (std::size_t extent = 1; extent < m_isUnmarked.size(); ++extent) {
            char name[32];
            std::snprintf(name, sizeof name, "disk-s%05zu.vmdk", extent);
            auto const file = images.find(crashURI(name).toString(true).toStdString());
            if (file == images.end() || file->second.empty())
                continue;
            std::size_t const headBytes = std::min<std::size_t>(512, file->second.size());
            m_isUnmarked[extent] = yx::isAllZero(file->second.data(), headBytes);
            totals().unmarkedExtents += m_isUnmarked[extent] ? 1 : 0;
        }
    }

    bool isUnmarked(int grain) const {
        auto const next = std::upper_bound(m_extentStarts.begin(), m_extentStarts.end(), grain);
        return m_isUnmarked[static_cast<std::size_t>(next - m_extentStarts.begin() - 1)];
    }

    bool mayFail(int grain) const { return m_expectation->mayFail(grain, isUnmarked(grain)); }

    std::unique_ptr<CrashDisk> open(yx::IIOStream::Access access, bool mustOpen) {
        try {
            return std::make_unique<CrashDisk>(m_way, m_kind, m_files.get(), access);
        } catch (yx::CError const& error) {
            ++totals().failedOpenings;
            EXPECT_FALSE(mustOpen || m_expectation->isCreated()) << error.what();
            return nullptr;
        }
    }

    /// Reads the grains of the history; one that cannot be read stays empty.
    std::vector<Bytes> readGrains(CrashDisk& disk) {
        std::vector<Bytes> contents;
        for (int const grain : m_history->grains()) {
            Bytes content(static_cast<std::size_t>(kGrainBytes));
            try {
                disk.read(grain * kGrainBytes, content.data(), static_cast<int>(kGrainBytes));
                if (m_expectation->isCreated()) {
                    EXPECT_EQ("", m_expectation->checkContent(grain, content));
                }
            } catch (yx::CError const& error) {
                ++totals().failedReads;
                EXPECT_TRUE(mayFail(grain)) << "grain " << grain << ": " << error.what();
                content.clear();
            }
            contents.push_back(std::move(content));
        }
        return contents;
    }

    bool isWritable(std::size_t index, std::vector<Bytes> const& before) const {
        return m_way == Way::Safe ? !isUnmarked(m_history->grains()[index])
                                  : !before[index].empty();
    }

    /// Goes on to use the disk: every second grain grows to the largest size there is, and must not
    /// harm its neighbours.
    void continueWork(std::vector<Bytes> const& before) {
        // A bare compressed disk may trust the size of a slot that no longer is so.
        if (m_way == Way::Bare && m_kind.disk.compressed)
            return;
        ++totals().continued;
        std::size_t const parity = m_random() % 2;
        static Bytes const kNoise = pattern(static_cast<std::size_t>(kGrainBytes), 77);
        std::vector<int> const& grains = m_history->grains();
        {
            std::unique_ptr<CrashDisk> const disk = open(kReadWrite, true);
            if (!disk)
                return;
            std::vector<Bytes> const recovered = readGrains(*disk);
            for (std::size_t i = parity; i < grains.size(); i += 2) {
                if (isWritable(i, before))
                    disk->write(grains[i] * kGrainBytes, kNoise);
            }
            disk->flush();
        }
        std::unique_ptr<CrashDisk> const disk = open(kReadOnly, true);
        if (!disk)
            return;
        for (std::size_t i = 0; i < grains.size(); ++i) {
            Bytes content(static_cast<std::size_t>(kGrainBytes));
            bool const isNew = i % 2 == parity && isWritable(i, before);
            try {
                disk->read(grains[i] * kGrainBytes, content.data(), static_cast<int>(kGrainBytes));
                if (isNew) {
                    EXPECT_TRUE(sameBytes(kNoise, content)) << "grain " << grains[i];
                } else if (!before[i].empty()) {
                    EXPECT_TRUE(sameBytes(before[i], content)) << "grain " << grains[i];
                } else {
                    EXPECT_EQ("", m_expectation->checkContent(grains[i], content));
                }
            } catch (yx::CError const& error) {
                EXPECT_TRUE(!isNew && before[i].empty() && mayFail(grains[i]))
                    << "grain " << grains[i] << ": " << error.what();
            }
        }
    }

    Way m_way;
    CrashKind m_kind;
    std::mt19937 m_random;
    yx::P<yx::CMemoryFileSystem> m_live = yx::makeObject<yx::CMemoryFileSystem>();
    yx::P<yx::CMemoryFileSystem> m_files = yx::makeObject<yx::CMemoryFileSystem>();
    FileImages m_start;
    yx::P<RecordingFileSystem> m_record;
    std::unique_ptr<CrashHistory> m_history;
    CrashExpectation* m_expectation = nullptr;

    /// The first grain of each extent, and the grain count at the end.
    std::vector<int> m_extentStarts;
    std::vector<bool> m_isUnmarked;
};

class PowerCuts : public testing::TestWithParam<WayAndKind> {};

TEST_P(PowerCuts, LeaveWhatWasFlushed) {
    LogCapture const log;
    unsigned int const histories = historiesOf(GetParam().kind);
    for (unsigned int round = 0; round < histories * roundsFromEnvironment(); ++round) {
        SCOPED_TRACE("history " + std::to_string(round));
        Cuts(GetParam(), 100 + round).run();
        if (HasFailure())
            return;
    }
}

INSTANTIATE_TEST_SUITE_P(EveryKind, PowerCuts, testing::ValuesIn(waysAndKinds()),
                         testing::PrintToStringParamName());

class PowerCutCount : public testing::Environment {
public:
    void TearDown() override {
        std::cout << "power cuts: " << totals().states << " states, " << totals().continued
                  << " of them used further; " << totals().failedOpenings << " did not open, and "
                  << totals().failedReads << " reads failed, " << totals().unmarkedExtents
                  << " extents were made of nothing but a length\n";
        testing::UnitTest const& tests = *testing::UnitTest::GetInstance();
        if (tests.test_to_run_count() == tests.total_test_count() && tests.Passed()) {
            EXPECT_GE(totals().states, kFewestStates);
        }
    }
};

testing::Environment* const kPowerCutCount = testing::AddGlobalTestEnvironment(new PowerCutCount);

} // namespace
} // namespace test_support
