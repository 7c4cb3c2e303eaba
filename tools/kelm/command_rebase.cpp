#include <memory>

#include <CLI/CLI.hpp>

#include "host/backups/disk_rebase.h"
#include "host/disk/parent_link.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

struct RebaseArguments {
    std::string child;
    std::string parent;
    bool trust = false;
    bool unsafe = false;
    TransferOptions transfer;
    int threads = 0;
    PasswordOptions passwords;
};

void verifyHasParent(host::SafeDisk const& child, RebaseArguments const& arguments) {
    if (!child.hasParent())
        throw UsageError("The disk has no parent: " + arguments.child);
}

/// Believes that the new parent is the old one.
void rebaseByTrust(Invocation& invocation, RebaseArguments& arguments) {
    std::unique_ptr<host::SafeDisk> const child =
        openDisk(invocation, arguments.child, yx::IIOStream::ReadWrite, arguments.passwords);
    verifyHasParent(*child, arguments);
    std::unique_ptr<host::SafeDisk> const parent =
        openDisk(invocation, arguments.parent, yx::IIOStream::ReadOnly, arguments.passwords);
    // If one of the parents were a descendant of the child, opening the chain would meet its lock.
    openParents(invocation, *parent, usedPassword(invocation, arguments.passwords));
    host::repointToParent(*child, *parent,
                          arguments.unsafe ? host::ParentCheck::None : host::ParentCheck::Content);
}

__int64 rebaseByContent(Invocation& invocation, RebaseArguments& arguments, yx::CURI const& child,
                        yx::CURI const& parent) {
    // Learns whether a password is needed, and says so where the child is a damaged one.
    verifyHasParent(
        *openDisk(invocation, arguments.child, yx::IIOStream::ReadOnly, arguments.passwords),
        arguments);
    return withPassword(invocation, arguments.parent, arguments.passwords, [&] {
        LongWork const work(invocation, "rebase", arguments.threads);
        host::DiskRebaseOptions options;
        options.password = usedPassword(invocation, arguments.passwords);
        options.trust = invocation.getTrust();
        options.work = work.getOptions();
        host::DurableFiles steps;
        return invocation.getWait().retry(
            [&] { return host::rebaseDisk(invocation.getFiles(), steps, child, parent, options); });
    });
}

ExitStatus rebase(Invocation& invocation, RebaseArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    yx::CURI const child = host::uriFromArgument(arguments.child);
    yx::CURI const parent = host::uriFromArgument(arguments.parent);
    if (parent == child)
        throw UsageError("A disk cannot be its own parent: " + arguments.child);
    __int64 copiedBytes = 0;
    if (arguments.trust || arguments.unsafe)
        rebaseByTrust(invocation, arguments);
    else
        copiedBytes = rebaseByContent(invocation, arguments, child, parent);
    invocation.getResult().add({{"file", host::displayName(child)},
                                {"parent", host::displayName(parent)},
                                {"copiedBytes", copiedBytes}});
    return ExitStatus::Done;
}

} // namespace

void addRebaseCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<RebaseArguments>();
    CLI::App& command = addCommand(
        program, run, "rebase",
        "Hang a child disk on another parent; what differs is copied to it, so that it reads as "
        "before",
        "kelm rebase tuesday.vmdk --parent /backup/monday.vmdk",
        [arguments](Invocation& invocation) { return rebase(invocation, *arguments); });
    addFileArgument(command, "CHILD", arguments->child, "The main file of the child disk");
    addFileOption(command, "--parent", arguments->parent, "The main file of the new parent", true);
    addFlag(command, "--trust", arguments->trust,
            "Compare and copy nothing, since the parent has only moved: its content ID must be the "
            "one that the child was made of. A parent that was changed by software which leaves "
            "the content ID would give the child wrong data without a word");
    addFlag(command, "--unsafe", arguments->unsafe,
            "The same, with whatever content ID the parent has");
    command.get_option("--unsafe")->group("");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of both disks");
}

} // namespace kelm::tool
