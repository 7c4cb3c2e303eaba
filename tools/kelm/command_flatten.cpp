#include <memory>

#include "host/disk/parent_link.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct FlattenArguments {
    std::string disk;
    PasswordOptions passwords;
};

std::unique_ptr<host::SafeDisk> openChild(Invocation& invocation, FlattenArguments& arguments) {
    std::unique_ptr<host::SafeDisk> disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadWrite, arguments.passwords);
    if (!disk->hasParent())
        throw UsageError("The disk has no parent: " + arguments.disk);
    return disk;
}

ExitStatus flatten(Invocation& invocation, FlattenArguments& arguments) {
    // An attempt that was killed may have copied grains that no table names.
    std::unique_ptr<host::SafeDisk> const disk =
        openToGoOn(invocation, [&] { return openChild(invocation, arguments); });
    LongWork const work(invocation, "flatten");
    host::makeIndependentOfParent(*disk, work.getOptions());
    host::dropParentLink(*disk);
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
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
