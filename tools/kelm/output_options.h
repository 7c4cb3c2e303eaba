#pragma once

#include <string>

#include "tools/kelm/command_result.h"

namespace CLI {
class App;
}

namespace kelm::tool {

class Invocation;

/// The options that say how a command tells what it does. An object must outlive the command that it
/// was added to.
struct OutputOptions {
    bool json = false;
    bool quiet = false;
    bool verbose = false;
    std::string progress = "bar";

    void addTo(CLI::App& command);

    /// Makes them those of a command that is about to begin, with the files that its command line
    /// names.
    void applyTo(Invocation& invocation, CLI::App const& command) const;

private:
    Words wordsWanted() const;
};

} // namespace kelm::tool
