#pragma once

#include "yx/uri.h"

namespace kelm::host {

/// Brings the names of the files in a folder to the device: those that were made stay, and those
/// that were deleted do not come back. A folder that may be written to but not read cannot be
/// synced, and passes, as does a URI without a store. A failure is what the store says; for folders
/// of the operating system, what `throwSystemError` makes of it.
void syncFolder(yx::CURI const& folder);

} // namespace kelm::host
