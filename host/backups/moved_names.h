#pragma once

#include <utility>
#include <vector>

#include "host/backups/disk_parts.h"

namespace kelm::host {

/// The names that the files of a disk get when its main file becomes `to`, each behind the one that
/// it has: the main file first, then the extent files, those that are not there included, and the digest file.
///
/// A file whose name begins with that of the disk gets the new one instead; where the rest is what
/// a splitting of the disk makes ("-s" and digits), the extension follows too. In another folder,
/// all files lie beside the main file. Two files of one name are `yx::CIOError` `NotAllowed` "Two
/// files of the disk would have one name." with "uri".
std::vector<std::pair<yx::CURI, yx::CURI>> listMovedNames(DiskParts const& disk,
                                                          yx::CURI const& to);

} // namespace kelm::host
