#pragma once

#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/disk/disk_key.h"
#include "host/disk/header_finding.h"
#include "host/system/cancel.h"

namespace kelm::host {

/// What is to be done to an extent file, and what cannot be.
struct ExtentRepair {
    /// The sectors that are to change, with all of their new bytes. They lie in the file or follow
    /// upon its end without a gap.
    std::map<__int64, std::vector<unsigned char>> sectors;

    /// What is mended by that, a sentence each.
    std::vector<std::string> mended;

    /// What is damaged and stays so, since nobody can know how it was.
    std::vector<std::string> left;
};

/// An extent as its repair needs to know it.
struct RepairedExtent {
    /// What the descriptor says of it.
    ExpectedExtent expected;

    /// The index in the disk of its first grain.
    __int64 startGrainIndex = 0;

    /// The key of the disk; empty for one that is not encrypted.
    DiskKey key;
};

/// Finds out what the metadata of an extent file should be. Changes nothing.
///
/// - The header: `findHeader`.
/// - The directories, and both sets of tables: `SalvagedTables`. An entry that is lost or doubtful
///   stays as it is in both.
/// - The markers and the slot size directory of a compressed file whose metadata lie where the
///   library puts them (`RegularPlaces`).
/// - Slots without a size, or too small for their record, get the size of the record.
/// - The trail of a compressed file: its copy of the header, or all of it behind the last byte.
///
/// Errors of the stream are those of sectors that no copy makes up for; they are not thrown, but
/// said. Takes as much memory as `SalvagedTables`. `cancel` may be null.
ExtentRepair planExtentRepair(yx::IIOStream& stream, RepairedExtent const& extent,
                              CancelFlag const* cancel);

} // namespace kelm::host
