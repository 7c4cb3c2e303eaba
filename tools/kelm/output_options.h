#pragma once

namespace CLI {
class App;
}

namespace kelm::tool {

class CommandResult;

/// The options that say how a command tells what it does. An object must outlive the command that it
/// was added to.
struct OutputOptions {
    bool json = false;

    void addTo(CLI::App& command);

    /// Makes them those of a command that is about to begin, with the files that its command line
    /// names.
    void applyTo(CommandResult& result, CLI::App const& command) const;
};

} // namespace kelm::tool
