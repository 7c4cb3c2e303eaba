#pragma once

#include <functional>

#include "host/disk/chain_members.h"
#include "host/disk/table_comparison.h"

namespace kelm::host {

/// A damaged table of a disk or of one of its parents.
struct DamagedTablePlace {
    /// The extent file that holds the table.
    yx::CURI file;

    /// The stretch of the disk that `file` holds.
    DiskExtent extent;

    /// Within that file.
    DamagedTable table;
};

/// Compares the grain tables of a disk and of its parents, which `listChainMembers` lists, with their redundant copies, as
/// `compareRedundantTables` does for one file, and calls `report` for each damaged one: first those
/// of the disk, in the order of its extents, then those of each parent. Files that are missing are
/// passed over, as are parents that cannot be read (`listChainMembers`).
///
/// A disk that is open for writing must have been flushed. Errors of reading pass through. `cancel`
/// may be null.
void findDamagedTables(SafeDisk& disk, std::vector<ChainMember> const& members,
                       CancelFlag const* cancel,
                       std::function<void(DamagedTablePlace const&)> const& report);

/// The same, but ends with `yx::CIOError` `CorruptData` if a table is damaged: "Grain table 3
/// differs from its redundant copy, so its grains may be lost." with "uri" of the file, "table",
/// "grains" and "bytes", the first and the last grain and byte of the table's stretch of the disk
/// ("1536-2047"), and "damagedTables", their number. It names the first damaged table.
void verifyTables(SafeDisk& disk, std::vector<ChainMember> const& members,
                  CancelFlag const* cancel);

/// The same for who has no list.
void verifyTables(SafeDisk& disk, CancelFlag const* cancel);

} // namespace kelm::host
