#pragma once

#include <string>

#include "host/system/cancel.h"

namespace kelm::host {

/// An open file, and its path for errors.
struct OpenFile {
    int fileDescriptor; ///< the operating system's number
    std::string path;   ///< for people
};

/// Copies all of a file into an empty one, and compares the two. Where the file system can, they
/// share their space, and there is nothing to compare; otherwise holes stay holes.
///
/// Errors are those of `throwSystemError`; a copy that reads as something else is `yx::CIOError`
/// `IOFailure` "The copy differs from the file." with "path". `cancel` may be null.
void copyFileContent(OpenFile const& source, OpenFile const& target, CancelFlag const* cancel);

/// Whether a file holds what another one does. `cancel` may be null.
bool isCopyOf(OpenFile const& source, OpenFile const& copy, CancelFlag const* cancel);

} // namespace kelm::host
