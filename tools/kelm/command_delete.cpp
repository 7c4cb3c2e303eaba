#include <memory>

#include "host/backups/disk_deletion.h"
#include "host/backups/disk_remains.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/flattening.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct DeleteArguments {
    std::string disk;
    std::vector<std::string> lookIn;
    bool withChildren = false;
    bool keepChildren = false;
    bool remains = false;
    PasswordOptions passwords;
};

std::vector<yx::CURI> makeChildrenIndependent(Invocation& invocation, DeleteArguments& arguments,
                                              yx::CURI const& mainFile,
                                              std::vector<yx::CURI> const& folders) {
    std::vector<yx::CURI> children =
        host::DiskRelations(invocation.getFiles(), folders).findChildren(mainFile);
    for (yx::CURI const& child : children)
        flattenDisk(invocation, host::displayName(child), arguments.passwords);
    return children;
}

std::string formatDeletion(std::vector<yx::CURI> const& files, std::vector<yx::CURI> const& kept) {
    std::string text;
    for (yx::CURI const& child : kept)
        text += "independent: " + host::printable(host::displayName(child)) + "\n";
    return text + formatNames(files);
}

void tell(Invocation& invocation, std::vector<yx::CURI> const& files,
          std::vector<yx::CURI> const& kept) {
    invocation.getResult().add({{"files", listNames(files)}, {"madeIndependent", listNames(kept)}});
    invocation.getResult().print(formatDeletion(files, kept));
}

ExitStatus deleteRemains(Invocation& invocation, DeleteArguments& arguments) {
    if (arguments.withChildren || arguments.keepChildren)
        throw UsageError("What is no disk yet has no children; leave out --with-children and "
                         "--keep-children.");
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    host::DurableFiles steps;
    tell(invocation, invocation.getWait().retry([&] {
        return host::deleteDiskRemains(invocation.getFiles(), steps, mainFile);
    }),
         {});
    return ExitStatus::Done;
}

ExitStatus deleteDisk(Invocation& invocation, DeleteArguments& arguments) {
    if (arguments.remains)
        return deleteRemains(invocation, arguments);
    if (arguments.withChildren && arguments.keepChildren)
        throw UsageError("Give --with-children or --keep-children, not both.");
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    host::DiskDeletionOptions options;
    options.trust = invocation.getTrust();
    options.withChildren = arguments.withChildren;
    options.lookIn = foldersToLookIn(arguments.lookIn, mainFile);
    std::vector<yx::CURI> kept;
    if (arguments.keepChildren)
        kept = makeChildrenIndependent(invocation, arguments, mainFile, options.lookIn);
    host::DurableFiles steps;
    std::vector<yx::CURI> const files = invocation.getWait().retry(
        [&] { return host::DiskDeletion(invocation.getFiles(), steps, mainFile, options).run(); });
    tell(invocation, files, kept);
    return ExitStatus::Done;
}

} // namespace

void addDeleteCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<DeleteArguments>();
    CLI::App& command = addCommand(
        program, run, "delete", "Delete a disk with all of its files", "kelm delete tuesday.vmdk",
        [arguments](Invocation& invocation) { return deleteDisk(invocation, *arguments); });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addLookOption(command, arguments->lookIn);
    addFlag(command, "--with-children", arguments->withChildren,
            "Delete the children too, and theirs");
    addFlag(command, "--keep-children", arguments->keepChildren,
            "Make the children independent of the disk first");
    addFlag(command, "--remains", arguments->remains,
            "Delete, and no disk, what a command that was killed while it made this one has left");
    arguments->passwords.addTo(command, "", "of the children");
}

} // namespace kelm::tool
