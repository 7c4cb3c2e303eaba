#pragma once

#include "yx/uri.h"

namespace kelm::host {

/// Refuses a file that is to be made in a folder in which this process may not make files: for files
/// of the operating system what `throwSystemError` makes of it, "Cannot write to the folder:
/// Permission denied" with "path", or "Read-only file system"; for others what their store says. A
/// folder that does not exist passes, as do URIs without a store.
void verifyMayWriteInFolderOf(yx::CURI const& file);

} // namespace kelm::host
