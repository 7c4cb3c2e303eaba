#pragma once

#include <string>

namespace kelm::host {

/// Brings the names of the files in a folder of the operating system to the device: those that were
/// made stay, and those that were deleted do not come back. A folder that may be written to but not
/// read cannot be synced, and passes. A failure is what `throwSystemError` makes of it.
void syncFolder(std::string const& path);

} // namespace kelm::host
