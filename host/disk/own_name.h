#pragma once

#include <optional>
#include <vector>

#include "yx/uri.h"

namespace kelm::host {

/// Puts the name right by which a disk in one file names itself. The descriptor inside the file has
/// an extent line with the file's name; once the file is renamed or copied that line names another
/// file, or none. Where no extent line means the very file that the descriptor lies in, the first
/// one does, under whatever name.
///
/// `area` is the descriptor's area in `mainFile`, text and zeros; a new area is returned, of the
/// same length, or nothing if the descriptor is right, or has no extent line.
///
/// Nothing but the name changes. Where a comment in the same sector can make up for another length
/// (blanks behind it, or letters off its end), all lines behind keep their places, and the areas
/// differ in a single sector, which a power cut leaves old or new. Otherwise the lines behind move,
/// and a cut while the area is written can leave a line torn where two sectors meet.
///
/// A name that finds no room is `yx::CIOError` `NotSupported` "The descriptor inside the disk has
/// no room for the file's name, or cannot spell it. Give the file a shorter one." with "uri".
std::optional<std::vector<unsigned char>> correctOwnName(std::vector<unsigned char> const& area,
                                                         yx::CURI const& mainFile);

} // namespace kelm::host
