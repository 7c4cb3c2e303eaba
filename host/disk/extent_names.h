#pragma once

#include "yx/uri.h"

namespace kelm::host {

/// Whether `extent` lies in the folder of the disk with the main file `main` and has a name that a
/// splitting of that disk gives: the disk's name, "-s", digits and the disk's extension. Both are
/// normalised.
bool isExtentName(yx::CURI const& main, yx::CURI const& extent);

} // namespace kelm::host
