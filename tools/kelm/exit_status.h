#pragma once

namespace kelm::tool {

/// What the program answers to its caller; scripts rely on the numbers.
enum class ExitStatus {
    Done = 0,
    Differences = 1, ///< `compare` found differences, or `check` has findings
    WrongUsage = 2,
    Failed = 3, ///< an error of a disk or file, or an interruption
    WrongPassword = 4,
};

} // namespace kelm::tool
