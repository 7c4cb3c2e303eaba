#pragma once

#include <functional>
#include <string>

#include "host/check/known_grains.h"
#include "host/disk/disk_extent.h"
#include "host/system/cancel.h"
#include "yx/stream.h"

namespace kelm::host {

/// Checks the structure of a sparse extent file without decoding its grains. The tables must equal
/// their redundant copies; the slots of the grains must lie behind the metadata, inside the file
/// and apart from each other. In a compressed extent, the records must name their grain and fit
/// their slots, and the trail must close the file. `report` gets a sentence for each finding, with
/// the bytes of the disk that a grain or a table stands for; a part of the file that cannot be read
/// is one. What one cause breaks is one finding (`FindingFold`):
/// where a file was cut off, that is all of its grains behind, and its trail. What `report` throws
/// passes. `known` gets the grains of which a finding has told.
///
/// Takes about 32 MiB of memory at most. The tables of a file of more than 128 GiB are read once
/// for each 128 GiB. `cancel` may be null.
void checkExtent(yx::IIOStream& stream, DiskExtent const& extent, CancelFlag const* cancel,
                 std::function<void(std::string const&)> const& report, KnownGrains& known);

} // namespace kelm::host
