#pragma once

#include <functional>
#include <string>

#include "host/system/cancel.h"
#include "yx/stream.h"

namespace kelm::host {

/// A grain table that cannot be trusted.
struct DamagedTable {
    /// Its number in the extent.
    __int64 tableIndex = 0;

    /// The stretch of the extent whose grains it names, in sectors from the extent's start.
    __int64 startSectors = 0;
    __int64 sizeSectors = 0;

    /// What is wrong with it, without its number: "differs from its redundant copy".
    std::string text;
};

/// Compares the grain tables of an extent file with their redundant copies, and calls `report` for
/// each that is damaged, in order. Only the main table is read otherwise, so a sector of it that
/// was lost would read as grains that were never written. An extent without redundant tables has
/// nothing to compare. `startGrainIndex` is the index in the disk of the extent's first grain.
///
/// A copy may lag behind its table after a power cut, which is no damage: the table then names
/// grains that the copy does not name yet, or not there. That is believed where the place proves
/// it: in a compressed extent the record there names the grain; in a plain one no other grain lies
/// there. An entry that only the copy has is always damage.
///
/// Reads the directories and both sets of tables once, and in a plain extent with a lagging copy
/// the tables twice more for each 128 GiB of the file; takes at most some 33 MiB of memory.
/// Directories that do not lie in the file, and tables that do not, are reported as damage of the
/// tables concerned; an extent whose header is not possible has none, since it cannot be opened
/// either. Failing reads are the stream's errors. `cancel` may be null.
void compareRedundantTables(yx::IIOStream& stream, __int64 startGrainIndex,
                            CancelFlag const* cancel,
                            std::function<void(DamagedTable const&)> const& report);

/// Writes each redundant table that differs from its main table anew, and brings that to the
/// device. For extents in which `compareRedundantTables` has found nothing, so that every
/// difference is a copy that lags. Returns how many were written. Tables that do not lie in the
/// file are passed over. The stream is open for writing. `cancel` may be null.
__int64 renewRedundantTables(yx::IIOStream& stream, CancelFlag const* cancel);

/// Where the last of all grain tables and directories ends, main and redundant, in sectors; 0 if
/// one of them does not lie in the file or the header is not possible.
__int64 findTablesEnd(yx::IIOStream& stream);

} // namespace kelm::host
