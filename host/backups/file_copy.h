#pragma once

#include <string>

#include "host/system/cancel.h"
#include "host/system/transfer_meter.h"

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
/// `IOFailure` "The copy differs from the file." with "path". `cancel` and `meter` may be null; the
/// meter is told of what is copied, and of what is read to compare it.
void copyFileContent(OpenFile const& source, OpenFile const& target, CancelFlag const* cancel,
                     TransferMeter* meter = nullptr);

/// Whether a file holds what another one does. `cancel` and `meter` may be null.
bool isCopyOf(OpenFile const& source, OpenFile const& copy, CancelFlag const* cancel,
              TransferMeter* meter = nullptr);

} // namespace kelm::host
