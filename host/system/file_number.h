#pragma once

#include <compare>
#include <optional>
#include <string>

#include <sys/types.h>

namespace kelm::host {

/// The number of a file of the operating system, the same whatever name the file was reached by. It
/// is the file's own as long as the file is open; later it may be given to another one.
struct FileNumber {
    /// The number of the device that the file lies on.
    dev_t device;

    /// The number of the file on its device.
    ino_t inode;

    /// Equal numbers are one file; the order has no meaning beyond sorting.
    friend auto operator<=>(FileNumber const&, FileNumber const&) = default;
};

/// That of the file that a path leads to, links followed; nothing if there is none, or none that can be
/// asked about.
std::optional<FileNumber> numberOfFile(std::string const& path);

/// That of an open file; nothing if it cannot be asked about.
std::optional<FileNumber> numberOfFile(int fileDescriptor);

} // namespace kelm::host
