#pragma once

namespace kelm::tool {

/// How the program ends. Scripts rely on the numbers; the manual lists them too.
enum class ExitStatus {
    Done = 0,
    Differences = 1, ///< `compare` found differences, or `check` has findings
    WrongUsage = 2,
    Failed = 3, ///< any error that has no status of its own
    WrongPassword = 4,
    Unfinished = 5,  ///< the disk was never filled completely
    InUse = 6,       ///< another program or another open disk holds the disk's lock
    Damaged = 7,     ///< a file has content that cannot be right, or ends too early
    NotFound = 8,    ///< a disk, a parent, an image or a folder does not exist
    NoSpace = 9,     ///< the device, a quota or the size limit of the process is exhausted
    Interrupted = 10 ///< by SIGINT, SIGTERM or SIGHUP
};

} // namespace kelm::tool
