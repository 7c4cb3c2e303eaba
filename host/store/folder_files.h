#pragma once

#include <vector>

#include "yx/uri.h"

namespace kelm::host {

/// The regular files in a folder and in all folders below it, in the order of their names. Links to
/// files are followed, and a file that several names lead to comes once; links to folders are not
/// followed. A name that is no UTF-8, which no disk can have, is passed over. So is a folder below
/// that may not be read or is gone by then. A folder that does not exist or cannot be read is
/// `yx::CIOError`, with "path" for one of the operating system.
std::vector<yx::CURI> listFilesBelow(yx::CURI const& folder);

} // namespace kelm::host
