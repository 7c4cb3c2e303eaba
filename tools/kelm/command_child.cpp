#include <memory>

#include "host/store/file_names.h"
#include "host/transfer/exact_size.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/new_disk_options.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct ChildArguments {
    std::string child;
    NewDiskOptions newDisk;
    PasswordOptions passwords;
};

ExitStatus makeChild(Invocation& invocation, ChildArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.child);
    std::vector<yx::CURI> parentFiles;
    bool keepsExactSize = false;
    {
        std::unique_ptr<host::SafeDisk> const parent = openDisk(
            invocation, arguments.newDisk.parent, yx::IIOStream::ReadOnly, arguments.passwords);
        parentFiles =
            listChainFiles(invocation, *parent, usedPassword(invocation, arguments.passwords));
        verifyIsNoneOf(parentFiles, uri);
        keepsExactSize = host::keepsExactSize(*parent);
        arguments.newDisk.compressed = parent->getDisk().getCompressed();
    }
    host::NewDisk const request =
        arguments.newDisk.makeRequest(invocation, -1, arguments.passwords);
    NewDiskInProgress disk(invocation, uri, request, arguments.newDisk.force, parentFiles);
    if (keepsExactSize)
        host::setExactSizeBytes(disk.getDisk(), request.sizeBytes);
    disk.finish();
    return ExitStatus::Done;
}

} // namespace

void addChildCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<ChildArguments>();
    CLI::App& command =
        addCommand(program, run, "child",
                   "Make an empty child of a disk, of its size and its kind of compression",
                   "kelm child monday.vmdk tuesday.vmdk", [arguments](Invocation& invocation) {
                       return makeChild(invocation, *arguments);
                   });
    addFileArgument(command, "PARENT", arguments->newDisk.parent,
                    "The main file of the parent, which must not change from then on");
    addFileArgument(command, "CHILD", arguments->child, "The main file of the new disk");
    arguments->newDisk.addCommonTo(command);
    arguments->passwords.addTo(command, "", "of both disks");
}

} // namespace kelm::tool
