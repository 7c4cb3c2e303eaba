#include "host/check/extent_check.h"

#include <algorithm>
#include <utility>

#include "host/check/header_check.h"
#include "host/check/table_limits.h"
#include "host/check/trail_check.h"
#include "kelm/format/constants.h"

namespace kelm::host {

namespace {

/// How much of a file is searched for overlaps at a time: 128 GiB, which takes 32 MiB of memory.
constexpr __int64 kSearchedStretchSectors = 1LL << 28;

} // namespace

ExtentCheck::ExtentCheck(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                         std::function<void(std::string const&)> report, KnownGrains& known)
    : m_extent(extent),
      m_cancel(cancel),
      m_report(std::move(report)),
      m_fold(m_report),
      m_findings(m_fold, known),
      m_reader(stream, m_findings) {}

ExtentCheck::~ExtentCheck() = default;

void ExtentCheck::runTo(__int64 grainIndex) {
    __int64 const endGrain = grainIndex - m_extent.getStartGrainIndex() + 1;
    if (!m_hasBegun || (m_tables && m_nextGrain < endGrain)) {
        runFolded([&] {
            begin();
            checkSlotsBefore(endGrain);
        });
    }
}

void ExtentCheck::finish() {
    runFolded([&] {
        begin();
        if (m_tables) {
            checkSlotsBefore(m_shape->tableCount * kGrainTableEntryCount);
            m_taken.reset();
            repeatForLaterStretches();
        }
        // A file that was cut off has no trail.
        if (m_shape && m_shape->compressed && !m_findings.isFileCutOff())
            checkTrail(m_reader, m_tables ? m_tables->getDataEndSectors() : 0, m_findings);
    });
    m_fold.flush();
}

/// Tells all findings before the work is cancelled.
template <class Work>
void ExtentCheck::runFolded(Work const& work) {
    try {
        work();
    } catch (CancelledError const&) {
        m_fold.flush();
        throw;
    }
}

void ExtentCheck::begin() {
    if (std::exchange(m_hasBegun, true))
        return;
    m_shape = HeaderCheck(m_reader, m_extent, m_findings).run();
    if (!m_shape || m_shape->tableCount == 0)
        return;
    m_tables.emplace(m_reader, *m_shape, m_findings);
    if (!m_tables->findDirectories())
        m_tables.reset();
    else
        m_taken = makeStretch(0);
}

void ExtentCheck::checkSlotsBefore(__int64 endGrain) {
    if (!m_tables)
        return;
    __int64 const end = std::min(endGrain, m_shape->tableCount * kGrainTableEntryCount);
    for (; m_nextGrain < end; ++m_nextGrain) {
        auto const entry = static_cast<int>(m_nextGrain % kGrainTableEntryCount);
        if (entry == 0 && m_cancel)
            m_cancel->check();
        if (entry == 0)
            m_tables->beginTable(m_nextGrain / kGrainTableEntryCount, *m_taken);
        m_tables->checkSlot(entry, *m_taken);
    }
}

void ExtentCheck::repeatForLaterStretches() {
    m_findings.setRepeating(true);
    for (__int64 start = kSearchedStretchSectors; start < getReachSectors();
         start += kSearchedStretchSectors) {
        SectorMap taken = makeStretch(start);
        for (__int64 table = 0; table < m_shape->tableCount; ++table)
            checkTable(table, taken);
    }
    m_findings.setRepeating(false);
}

void ExtentCheck::checkTable(__int64 table, SectorMap& taken) {
    if (m_cancel)
        m_cancel->check();
    m_tables->beginTable(table, taken);
    for (int entry = 0; entry < kGrainTableEntryCount; ++entry)
        m_tables->checkSlot(entry, taken);
}

SectorMap ExtentCheck::makeStretch(__int64 startSectors) const {
    return {startSectors, std::min(kSearchedStretchSectors, getReachSectors() - startSectors)};
}

__int64 ExtentCheck::getReachSectors() const {
    return std::min(m_reader.getSizeSectors(), kTableReachSectors);
}

void checkExtent(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report, KnownGrains& known) {
    ExtentCheck(stream, extent, cancel, report, known).finish();
}

} // namespace kelm::host
