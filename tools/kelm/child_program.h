#pragma once

#include <string>
#include <utility>
#include <vector>

#include <sys/types.h>

namespace kelm::tool {

/// How a program ended.
struct ProgramEnd {
    /// -1 if a signal ended it.
    int status = -1;

    /// What it has said, without the line end.
    std::string words;
};

/// Whether a program is found where programs are looked for.
bool isProgramThere(std::string const& name);

/// Runs a program, in English and out of reach of the terminal's signals, and waits for its end.
/// One that cannot be started is `yx::CIOError` with "path".
ProgramEnd runProgram(std::vector<std::string> const& words);

/// A program that goes on when this one has ended, in the root folder. What it says goes to a file.
class BackgroundProgram {
public:
    /// File descriptors that it gets, by the numbers that they are to have there.
    using Descriptors = std::vector<std::pair<int, int>>;

    /// Starts it. Errors are those of `runProgram`.
    BackgroundProgram(std::vector<std::string> const& words, std::string const& logFile,
                      Descriptors const& descriptors);
    BackgroundProgram(BackgroundProgram const&) = delete;
    BackgroundProgram& operator=(BackgroundProgram const&) = delete;
    ~BackgroundProgram() = default;

    /// Whether it has ended by now.
    bool hasEnded();

    /// Ends it unless it has ended, and waits for that.
    void end();

private:
    pid_t m_process = -1;
    bool m_hasEnded = false;
};

} // namespace kelm::tool
