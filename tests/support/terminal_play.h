#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace test_support {

/// What a terminal is to show, and what its user types as soon as it does, pair by pair.
using Dialogue = std::vector<std::pair<std::string, std::string>>;

/// What a process on a terminal left behind.
struct TerminalPlay {
    /// The exit status, -1 if a signal ended the process.
    int status = -1;

    /// All that the terminal showed.
    std::string shown;
};

/// Runs `body` in a forked process that has a terminal of its own, and plays the terminal's user. A
/// dialogue that does not get to its end fails the test. What `body` returns is the exit status; it
/// may also become another program.
TerminalPlay playOnTerminal(std::function<int()> const& body, Dialogue const& dialogue);

} // namespace test_support
