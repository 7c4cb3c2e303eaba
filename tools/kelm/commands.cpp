#include "tools/kelm/commands.h"

#include <limits>
#include <memory>
#include <utility>
#include <vector>

#include <CLI/CLI.hpp>

#include "host/store/file_names.h"
#include "host/system/key_derivation.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output_options.h"
#include "tools/kelm/password_options.h"

namespace kelm::tool {

namespace {

/// How far the user trusts the disks of a command.
struct TrustOptions {
    std::vector<std::string> allowedPaths;
    bool allowOversize = false;

    void addTo(CLI::App& command) {
        command
            .add_option("--allow-path", allowedPaths,
                        "A folder in which files of a disk may lie, beside the disk's own; may be "
                        "given several times")
            ->type_name("FOLDER")
            ->allow_extra_args(false);
        command.add_flag("--allow-oversize", allowOversize,
                         "Take disks with grains above 64 MiB, more than 65536 extents, or more "
                         "than 1 TiB without files");
    }

    host::DiskTrust make() const {
        host::DiskTrust trust;
        for (std::string const& folder : allowedPaths)
            trust.allowedPaths.push_back(host::uriFromArgument(folder));
        trust.allowOversize = allowOversize;
        return trust;
    }
};

} // namespace

CLI::App& addPlainCommand(CLI::App& program, Run& run, std::string const& name,
                          std::string const& description, std::string const& example, Run action) {
    CLI::App& command = *program.add_subcommand(name, description);
    command.footer("Example:\n  " + example);
    auto const output = std::make_shared<OutputOptions>();
    output->addTo(command);
    command.callback([&run, &command, output, action = std::move(action)] {
        run = [&command, output, action](Invocation& invocation) {
            output->applyTo(invocation, command);
            return action(invocation);
        };
    });
    return command;
}

CLI::App& addCommand(CLI::App& program, Run& run, std::string const& name,
                     std::string const& description, std::string const& example, Run action) {
    auto const maxRounds = std::make_shared<int>(host::KeyDerivationWatch::kDefaultMaxRounds);
    auto const parentPasswords = std::make_shared<PasswordOptions>();
    auto const trust = std::make_shared<TrustOptions>();
    auto const waitSeconds = std::make_shared<int>(0);
    auto const storeTimeoutSeconds = std::make_shared<int>(0);
    Run const actionWithOptions = [=, action = std::move(action)](Invocation& invocation) {
        host::KeyDerivationWatch const watch(&invocation.getCancel(), *maxRounds);
        invocation.setMaxRounds(*maxRounds);
        invocation.setParentPasswords(parentPasswords);
        invocation.setStoreTimeout(std::chrono::seconds(*storeTimeoutSeconds));
        invocation.setTrust(trust->make());
        invocation.setWait(std::chrono::seconds(*waitSeconds));
        return action(invocation);
    };
    CLI::App& command =
        addPlainCommand(program, run, name, description, example, actionWithOptions);
    addNumberOption(command, "--max-rounds", *maxRounds, 1, std::numeric_limits<int>::max(),
                    "The most rounds of key derivation that a disk may ask for; " +
                        std::to_string(host::KeyDerivationWatch::kDefaultMaxRounds) +
                        " by default");
    command.get_option("--max-rounds")->group(kPasswordHelpGroup);
    parentPasswords->addTo(command, "parent-", "of parents that have another one");
    trust->addTo(command);
    addWaitOption(command, *waitSeconds);
    addStoreTimeoutOption(command, *storeTimeoutSeconds);
    return command;
}

} // namespace kelm::tool
