#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace bench {

/// What a program took that ran to its end.
struct ProcessUse {
    double seconds;

    /// The most memory that it held at any time, as the system counts it.
    long long peakMemoryBytes;
};

/// Starts the process from which `runProgram` starts all others. To be called before this one takes
/// memory: the system counts what a process held before it became the program as the program's.
void startLauncher();

/// Runs a program, found by PATH, with its standard output discarded, and waits for it. If it
/// fails, this program ends with a message.
ProcessUse runProgram(std::vector<std::string> const& arguments);

/// Ends this program with a message and status 1.
[[noreturn]] void fail(std::string const& message);

/// How often each system call was made, by name. Empty if the system does not let a process trace
/// its child.
using SystemCalls = std::map<std::string, int>;

/// Counts the system calls of `run`, which runs in a child process that this one traces.
SystemCalls countSystemCalls(std::function<void()> const& run);

/// "11: open 3, pread 5, ...": all calls, and those of each name.
std::string formatSystemCalls(SystemCalls const& calls);

} // namespace bench
