#include "tools/kelm/commands.h"

#include <utility>

#include <CLI/CLI.hpp>

namespace kelm::tool {

CLI::App& addCommand(CLI::App& program, Run& run, std::string const& name,
                     std::string const& description, std::string const& example, Run action) {
    CLI::App& command = *program.add_subcommand(name, description);
    command.footer("Example:\n  " + example);
    command.callback([&run, action = std::move(action)] { run = action; });
    return command;
}

} // namespace kelm::tool
