#include "tools/kelm/commands.h"

#include <limits>
#include <memory>
#include <utility>

#include <CLI/CLI.hpp>

#include "host/system/key_derivation.h"
#include "tools/kelm/options.h"
#include "tools/kelm/password_options.h"

namespace kelm::tool {

CLI::App& addCommand(CLI::App& program, Run& run, std::string const& name,
                     std::string const& description, std::string const& example, Run action) {
    CLI::App& command = *program.add_subcommand(name, description);
    command.footer("Example:\n  " + example);
    auto const maxRounds = std::make_shared<int>(host::KeyDerivationWatch::kDefaultMaxRounds);
    addNumberOption(command, "--max-rounds", *maxRounds, 1, std::numeric_limits<int>::max(),
                    "The most rounds of key derivation that a disk may ask for");
    command.get_option("--max-rounds")->group(kPasswordHelpGroup);
    command.callback([&run, maxRounds, action = std::move(action)] {
        run = [maxRounds, action](Invocation& invocation) {
            host::KeyDerivationWatch const watch(&invocation.getCancel(), *maxRounds);
            return action(invocation);
        };
    });
    return command;
}

} // namespace kelm::tool
