#pragma once

#include "host/check/extent_reader.h"

namespace kelm::host {

/// Checks the trail that closes the file of a compressed extent: the marker of the footer, the
/// footer, which is a copy of the header, and the marker of the end of the stream. The grains must
/// end before it, at `dataEndSectors`.
void checkTrail(ExtentReader& reader, __int64 dataEndSectors, ExtentFindings const& findings);

} // namespace kelm::host
