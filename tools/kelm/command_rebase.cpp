#include <memory>

#include "host/disk/parent_link.h"
#include "host/store/file_names.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct RebaseArguments {
    std::string child;
    std::string parent;
    bool unsafe = false;
    PasswordOptions passwords;
};

ExitStatus rebase(Invocation& invocation, RebaseArguments& arguments) {
    std::unique_ptr<host::SafeDisk> const child =
        openDisk(invocation, arguments.child, yx::IIOStream::ReadWrite, arguments.passwords);
    if (!child->hasParent())
        throw UsageError("The disk has no parent: " + arguments.child);
    yx::CURI const parentURI = host::uriFromArgument(arguments.parent);
    if (parentURI == child->getDisk().getMainFileURI())
        throw UsageError("A disk cannot be its own parent: " + arguments.child);
    std::unique_ptr<host::SafeDisk> const parent =
        openDisk(invocation, arguments.parent, yx::IIOStream::ReadOnly, arguments.passwords);
    // If one of the parents were a descendant of the child, opening the chain would meet its lock.
    openParents(invocation, *parent, usedPassword(invocation, arguments.passwords));
    host::repointToParent(*child, *parent,
                          arguments.unsafe ? host::ParentCheck::None : host::ParentCheck::Content);
    return ExitStatus::Done;
}

} // namespace

void addRebaseCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<RebaseArguments>();
    CLI::App& command =
        addCommand(program, run, "rebase", "Record in a child disk where its parent is now",
                   "kelm rebase tuesday.vmdk --parent /backup/monday.vmdk",
                   [arguments](Invocation& invocation) { return rebase(invocation, *arguments); });
    addFileArgument(command, "CHILD", arguments->child, "The main file of the child disk");
    addFileOption(command, "--parent", arguments->parent, "The main file of the parent", true);
    addFlag(command, "--unsafe", arguments->unsafe,
            "Accept a parent with other content than the child was made of");
    arguments->passwords.addTo(command, "", "of both disks");
}

} // namespace kelm::tool
