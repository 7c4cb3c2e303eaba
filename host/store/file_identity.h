#pragma once

#include <compare>
#include <optional>

#include "yx/uri.h"

namespace kelm::host {

/// What distinguishes a file of the operating system from every other one, whatever its name is.
struct FileIdentity {
    /// The number of the device that the file lies on.
    unsigned long long device = 0;

    /// The number of the file on its device.
    unsigned long long inode = 0;

    /// When the file was made, where the file system knows; a device may give the number of a
    /// deleted file to the next one.
    __int64 birthSeconds = 0;
    unsigned int birthNanoseconds = 0;

    /// Whether both are one file.
    bool operator==(FileIdentity const&) const = default;
};

/// The identity of the file of that name, a link followed. Nothing if there is none, or if the URI
/// does not name a file of the operating system.
std::optional<FileIdentity> identifyFile(yx::CURI const& uri);

} // namespace kelm::host
