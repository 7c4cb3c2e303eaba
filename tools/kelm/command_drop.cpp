#include <memory>

#include "host/backups/disk_drop.h"
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

struct DropArguments {
    std::string disk;
    std::vector<std::string> lookIn;
    bool verify = false;
    TransferOptions transfer;
    int threads = 0;
    PasswordOptions passwords;
};

std::string formatDrop(host::DiskDropResult const& result) {
    std::string text;
    for (yx::CURI const& child : result.children)
        text += "child: " + host::printable(host::displayName(child)) + "\n";
    return text + formatNames(result.files);
}

host::DiskDropResult runDrop(Invocation& invocation, DropArguments& arguments,
                             yx::CURI const& mainFile) {
    LongWork const work(invocation, "drop", arguments.threads);
    host::DiskDropOptions options;
    options.trust = invocation.getTrust();
    options.lookIn = foldersToLookIn(arguments.lookIn, mainFile);
    options.verify = arguments.verify;
    options.work = work.getOptions();
    options.password = usedPassword(invocation, arguments.passwords);
    host::DurableFiles steps;
    return invocation.getWait().retry(
        [&] { return host::DiskDrop(invocation.getFiles(), steps, mainFile, options).run(); });
}

ExitStatus dropDisk(Invocation& invocation, DropArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    warnOfEndedWork(invocation, mainFile);
    host::DiskDropResult const result =
        withPassword(invocation, arguments.disk, arguments.passwords,
                     [&] { return runDrop(invocation, arguments, mainFile); });
    invocation.getResult().add(
        {{"files", listNames(result.files)}, {"children", listNames(result.children)}});
    invocation.getResult().print(formatDrop(result));
    return ExitStatus::Done;
}

} // namespace

void addDropCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<DropArguments>();
    CLI::App& command =
        addCommand(program, run, "drop",
                   "Take a disk out of its chain: its children keep their content, its files go",
                   "kelm drop tuesday.vmdk", [arguments](Invocation& invocation) {
                       return dropDisk(invocation, *arguments);
                   });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addLookOption(command, arguments->lookIn);
    addFlag(command, "--verify", arguments->verify,
            "Compare each child with what it was before it leaves the disk");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disks");
}

} // namespace kelm::tool
