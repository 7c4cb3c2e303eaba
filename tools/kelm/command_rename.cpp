#include <memory>

#include "host/backups/disk_move.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct RenameArguments {
    std::string from;
    std::string to;
    std::vector<std::string> lookIn;
};

std::string formatRenaming(host::DiskMoveResult const& result) {
    std::string text = formatNames(result.files);
    for (yx::CURI const& child : result.children)
        text += "child: " + host::printable(host::displayName(child)) + "\n";
    return text;
}

ExitStatus renameDisk(Invocation& invocation, RenameArguments const& arguments) {
    yx::CURI const from = host::uriFromArgument(arguments.from);
    yx::CURI const to = nameIn(arguments.to, arguments.from);
    host::DiskMoveOptions options;
    options.trust = invocation.getTrust();
    LongWork const work(invocation, "rename");
    options.work = work.getOptions();
    options.lookIn = foldersToLookIn(arguments.lookIn, from);
    host::DurableFiles steps;
    steps.setMeter(&invocation.getMeter());
    host::DiskMoveResult const result = invocation.getWait().retry(
        [&] { return host::DiskMove(invocation.getFiles(), steps, from, to, options).run(); });
    invocation.getResult().add(
        {{"files", listNames(result.files)}, {"children", listNames(result.children)}});
    invocation.getResult().print(formatRenaming(result));
    return ExitStatus::Done;
}

} // namespace

void addRenameCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<RenameArguments>();
    CLI::App& command = addCommand(
        program, run, "rename", "Give a disk another name, in any folder, with all of its files",
        "kelm rename monday.vmdk /backup/full.vmdk",
        [arguments](Invocation& invocation) { return renameDisk(invocation, *arguments); });
    addFileArgument(command, "OLD", arguments->from, "The main file of the disk");
    addFileArgument(command, "NEW", arguments->to, "The new name of it, or another folder");
    addLookOption(command, arguments->lookIn);
}

} // namespace kelm::tool
