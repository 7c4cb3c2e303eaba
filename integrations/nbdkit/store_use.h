#pragma once

#include "yx/uri.h"

namespace kelm::nbd {

/// Whether a disk or one of its parents has a file that is none of the operating system's. Looks at
/// files of the operating system only, and so comes to its end at the first name of another one,
/// or at a disk that cannot be read, which whoever opens it is told of.
bool usesStores(yx::CURI const& mainFile);

} // namespace kelm::nbd
