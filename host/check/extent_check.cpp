#include "host/check/extent_check.h"

#include <algorithm>
#include <optional>

#include "host/check/header_check.h"
#include "host/check/table_check.h"
#include "host/check/table_limits.h"
#include "host/check/trail_check.h"

namespace kelm::host {

namespace {

/// How much of a file is searched for overlaps at a time: 128 GiB, which takes 32 MiB of memory.
constexpr __int64 kSearchedStretchSectors = 1LL << 28;

void checkStretches(TableCheck& tables, ExtentShape const& shape, __int64 fileSizeSectors,
                    CancelFlag const* cancel, ExtentFindings& findings) {
    __int64 const reachSectors = std::min(fileSizeSectors, kTableReachSectors);
    for (__int64 start = 0; start < reachSectors; start += kSearchedStretchSectors) {
        SectorMap taken(start, std::min(kSearchedStretchSectors, reachSectors - start));
        findings.setRepeating(start > 0);
        for (__int64 table = 0; table < shape.tableCount; ++table) {
            if (cancel)
                cancel->check();
            tables.run(table, taken);
        }
    }
    findings.setRepeating(false);
}

void checkParts(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                ExtentFindings& findings) {
    ExtentReader reader(stream, findings);
    std::optional<ExtentShape> const shape = HeaderCheck(reader, extent, findings).run();
    if (!shape)
        return;
    TableCheck tables(reader, *shape, findings);
    if (shape->tableCount > 0 && tables.findDirectories())
        checkStretches(tables, *shape, reader.getSizeSectors(), cancel, findings);
    // A file that was cut off has no trail.
    if (shape->compressed && !findings.isFileCutOff())
        checkTrail(reader, tables.getDataEndSectors(), findings);
}

} // namespace

void checkExtent(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report, KnownGrains& known) {
    FindingFold fold(report);
    ExtentFindings findings(fold, known);
    try {
        checkParts(stream, extent, cancel, findings);
    } catch (CancelledError const&) {
        fold.flush();
        throw;
    }
    fold.flush();
}

} // namespace kelm::host
