#pragma once

#include <optional>
#include <string>
#include <tuple>

#include "yx/base.h"

struct statx;

namespace kelm::host {

/// What distinguishes a file from every other one, the same whatever name the file was reached by.
struct FileIdentity {
    /// Of a file in another store than the operating system's, what tells the store (and what in it
    /// a number is counted in) from all others; else empty.
    std::string store;

    /// The number of the device that the file lies on.
    unsigned long long device = 0;

    /// The number of the file on its device.
    unsigned long long inode = 0;

    /// When the file was made, 0 where the file system does not know. A device may give the number
    /// of a deleted file that nobody has open to the next one.
    __int64 birthSeconds = 0;
    unsigned int birthNanoseconds = 0;

    /// Whether both are one file.
    bool operator==(FileIdentity const&) const = default;

    /// Has no meaning beyond sorting.
    bool operator<(FileIdentity const& other) const {
        return std::tie(store, device, inode, birthSeconds, birthNanoseconds) <
               std::tie(other.store, other.device, other.inode, other.birthSeconds,
                        other.birthNanoseconds);
    }
};

/// That of the file that a path leads to, links followed; nothing if there is none, or none that
/// can be asked about.
std::optional<FileIdentity> identifyFile(std::string const& path);

/// That of an open file; nothing if it cannot be asked about.
std::optional<FileIdentity> identifyFile(int fileDescriptor);

/// What `statx` is to be asked for (its mask) for `toIdentity`.
unsigned int getIdentityMask();

/// That of a file which `statx` has told of.
FileIdentity toIdentity(struct statx const& status);

} // namespace kelm::host
