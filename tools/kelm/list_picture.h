#pragma once

#include <string>
#include <vector>

#include "host/backups/backup_list.h"

namespace kelm::tool {

/// A picture of disks over time as an SVG document. Each chain is a lane, a branch of it another
/// one; a disk stands at the time of its image, and the line to it from its parent is as wide as
/// the disk holds data. A disk whose time is not known stands a step behind its parent. The colours
/// follow the reader's choice of a light or dark display.
///
/// `disks` is what `listBackups` returns.
std::string drawBackups(std::vector<host::BackupDisk> const& disks);

} // namespace kelm::tool
