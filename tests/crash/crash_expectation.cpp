#include "tests/crash/crash_expectation.h"

#include <algorithm>
#include <cstring>

namespace test_support {

namespace {

constexpr std::size_t kSectorBytes = 512;
constexpr std::size_t kCipherBlockBytes = 16;

/// Where the versions begin to differ; their size if they do not.
std::size_t findFirstDifference(std::vector<std::shared_ptr<Bytes const>> const& versions) {
    std::size_t first = versions.front()->size();
    for (auto const& version : versions) {
        auto const [left, right] =
            std::mismatch(version->begin(), version->end(), versions.front()->begin());
        first = std::min(first, static_cast<std::size_t>(left - version->begin()));
    }
    return first;
}

bool isAllZero(Bytes const& content) {
    return std::all_of(content.begin(), content.end(),
                       [](unsigned char byte) { return byte == 0; });
}

} // namespace

CrashExpectation::CrashExpectation(Way way, CrashKind const& kind, CrashHistory const& history,
                                   std::vector<int> extentStarts)
    : m_way(way), m_kind(kind), m_history(history), m_extentStarts(std::move(extentStarts)) {
    m_extentIsFlushed.resize(m_extentStarts.size(), !kind.disk.onDemand);
    for (int grain = 0; grain < kGrainCount; ++grain)
        m_grains.push_back({{std::make_shared<Bytes const>(grainBelow(kind, grain))}});
}

void CrashExpectation::moveTo(std::size_t operations) {
    std::vector<CrashHistory::Step> const& steps = m_history.steps();
    for (; m_startedSteps < steps.size() && steps[m_startedSteps].firstOperation <= operations;
         ++m_startedSteps) {
        for (; m_finishedSteps < m_startedSteps; ++m_finishedSteps)
            finishStep(steps[m_finishedSteps]);
        for (CrashHistory::Change const& change : steps[m_startedSteps].changes)
            m_grains[static_cast<std::size_t>(change.grain)].versions.push_back(change.content);
    }
    if (m_finishedSteps < m_startedSteps && steps[m_finishedSteps].endOperation <= operations)
        finishStep(steps[m_finishedSteps++]);
}

void CrashExpectation::finishStep(CrashHistory::Step const& step) {
    if (!step.isFlush)
        return;
    m_isCreated = true;
    for (int index = 0; index < kGrainCount; ++index) {
        Grain& grain = m_grains[static_cast<std::size_t>(index)];
        if (grain.versions.size() == 1)
            continue;
        // Zeros for a grain without a place are not stored. The bare library then makes the file,
        // but has nothing in it to flush.
        bool const isStored = std::any_of(grain.versions.begin() + 1, grain.versions.end(),
                                          [](auto const& version) { return !isAllZero(*version); });
        if (m_way == Way::Safe || isStored)
            m_extentIsFlushed[static_cast<std::size_t>(extentOf(index))] = true;
        grain.versions.erase(grain.versions.begin(), grain.versions.end() - 1);
        grain.mayHavePlace = true;
    }
}

int CrashExpectation::extentOf(int grain) const {
    return static_cast<int>(std::upper_bound(m_extentStarts.begin(), m_extentStarts.end(), grain) -
                            m_extentStarts.begin()) -
           1;
}

bool CrashExpectation::mayBeRewritten(Grain const& grain) const {
    return grain.versions.size() > (grain.mayHavePlace ? 1U : 2U);
}

bool CrashExpectation::mayFail(int grain, bool isUnmarked) const {
    if (!m_isCreated)
        return true;
    Grain const& state = m_grains[static_cast<std::size_t>(grain)];
    // A file that is made at the first write may be there in part, which `SafeDisk` sees.
    bool const isInPart = !m_extentIsFlushed[static_cast<std::size_t>(extentOf(grain))];
    if (isInPart && (m_way == Way::Bare || isUnmarked))
        return true;
    if (!m_kind.disk.compressed || state.versions.size() == 1)
        return false;
    // Of a new grain the position may be known and its slot not, which `SafeDisk` makes up for.
    return m_way == Way::Bare || mayBeRewritten(state);
}

std::string CrashExpectation::checkContent(int grain, Bytes const& content) const {
    Grain const& state = m_grains[static_cast<std::size_t>(grain)];
    for (auto const& version : state.versions) {
        if (content == *version)
            return "";
    }
    if (mayBeRewritten(state) && !m_kind.disk.compressed && isMixOfSectors(state, content))
        return "";
    return "grain " + std::to_string(grain) + " is none of its " +
           std::to_string(state.versions.size()) + " versions";
}

bool CrashExpectation::isMixOfSectors(Grain const& grain, Bytes const& content) const {
    std::size_t const firstDifference = findFirstDifference(grain.versions);
    for (std::size_t start = 0; start < content.size(); start += kSectorBytes) {
        bool const mayBreakChain = m_kind.isEncrypted() && start > firstDifference;
        std::size_t const from = start + (mayBreakChain ? kCipherBlockBytes : 0);
        std::size_t const size = start + kSectorBytes - from;
        bool const isKnown =
            std::any_of(grain.versions.begin(), grain.versions.end(), [&](auto const& version) {
                return std::memcmp(content.data() + from, version->data() + from, size) == 0;
            });
        if (!isKnown)
            return false;
    }
    return true;
}

} // namespace test_support
