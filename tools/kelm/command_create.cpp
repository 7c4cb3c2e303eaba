#include <memory>

#include "host/store/file_names.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct CreateArguments {
    std::string disk;
    __int64 sizeBytes = -1;
    NewDiskOptions newDisk;
    PasswordOptions passwords;
};

ExitStatus create(Invocation& invocation, CreateArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    host::NewDisk const request =
        arguments.newDisk.makeRequest(invocation, arguments.sizeBytes, arguments.passwords);
    NewDiskInProgress disk(invocation, uri, request, arguments.newDisk.force);
    disk.finish();
    return ExitStatus::Done;
}

} // namespace

void addCreateCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<CreateArguments>();
    CLI::App& command =
        addCommand(program, run, "create", "Make an empty disk",
                   "kelm create backup.vmdk --size 40G --compressed --split 2G",
                   [arguments](Invocation& invocation) { return create(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the new disk");
    addSizeOption(command, "--size", arguments->sizeBytes,
                  "Size of the disk; that of the parent by default");
    arguments->newDisk.addCompressedTo(command);
    arguments->newDisk.addCommonTo(command);
    arguments->newDisk.addParentTo(command);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
