#pragma once

#include <string>

#include "yx/uri.h"

namespace kelm::host {

/// Refuses a file that is to be made in a folder in which this process may not make files: what
/// `throwSystemError` makes of it, "Cannot write to the folder: Permission denied" with "path", or
/// "Read-only file system". A folder that does not exist passes, as do files of other URIs than
/// "file:".
void verifyMayWriteInFolderOf(yx::CURI const& file);

} // namespace kelm::host
