// Cuts the power after every single operation of seeded histories of every kind of disk, rebuilds
// states in which the files can be found then, and looks at what the disk has become.
//
// KELM_CRASH_ROUNDS multiplies the number of histories.

#include "tests/support/power_cut.h"

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
        CrashExpectation expectation(m_way, m_kind, *m_history, extentStarts(m_live.get()));
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
        std::unique_ptr<CrashDisk> disk = open(kReadOnly, false);
        if (!disk)
            return;
        std::vector<Bytes> const before = readGrains(*disk, false);
        disk.reset();
        if (totals().states % kStatesOfWhichOneIsUsed == 0 && m_expectation->isCreated())
            continueWork(before);
    }

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
    std::vector<Bytes> readGrains(CrashDisk& disk, bool isRecovered) {
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
                EXPECT_TRUE(m_expectation->mayFail(grain, isRecovered))
                    << "grain " << grain << ": " << error.what();
                content.clear();
            }
            contents.push_back(std::move(content));
        }
        return contents;
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
            std::vector<Bytes> const recovered = readGrains(*disk, m_way == Way::Safe);
            for (std::size_t i = parity; i < grains.size(); i += 2) {
                if (m_way == Way::Safe || !before[i].empty())
                    disk->write(grains[i] * kGrainBytes, kNoise);
            }
            disk->flush();
        }
        std::unique_ptr<CrashDisk> const disk = open(kReadOnly, true);
        if (!disk)
            return;
        for (std::size_t i = 0; i < grains.size(); ++i) {
            Bytes content(static_cast<std::size_t>(kGrainBytes));
            bool const isNew = i % 2 == parity && (m_way == Way::Safe || !before[i].empty());
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
                EXPECT_TRUE(!isNew && before[i].empty() &&
                            m_expectation->mayFail(grains[i], m_way == Way::Safe))
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
                  << totals().failedReads << " reads failed\n";
        testing::UnitTest const& tests = *testing::UnitTest::GetInstance();
        if (tests.test_to_run_count() == tests.total_test_count() && tests.Passed()) {
            EXPECT_GE(totals().states, kFewestStates);
        }
    }
};

testing::Environment* const kPowerCutCount = testing::AddGlobalTestEnvironment(new PowerCutCount);

} // namespace
} // namespace test_support
