#include <memory>

#include "tools/kelm/commands.h"
#include "tools/kelm/flattening.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

struct FlattenArguments {
    std::string disk;
    TransferOptions transfer;
    PasswordOptions passwords;
};

ExitStatus flatten(Invocation& invocation, FlattenArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    flattenDisk(invocation, arguments.disk, arguments.passwords);
    return ExitStatus::Done;
}

} // namespace

void addFlattenCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<FlattenArguments>();
    CLI::App& command =
        addCommand(program, run, "flatten",
                   "Give a child disk all that it has from its parents, and leave them",
                   "kelm flatten tuesday.vmdk",
                   [arguments](Invocation& invocation) { return flatten(invocation, *arguments); });
    addFileArgument(command, "CHILD", arguments->disk, "The main file of the child disk");
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
