#include <memory>

#include "host/backups/disk_drop.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

struct DropArguments {
    std::string disk;
    std::vector<std::string> lookIn;
    bool verify = false;
    bool json = false;
    int threads = 0;
    PasswordOptions passwords;
};

std::string formatDrop(bool json, host::DiskDropResult const& result) {
    if (json) {
        return formatJSON(
                   {{"files", listNames(result.files)}, {"children", listNames(result.children)}}) +
               "\n";
    }
    std::string text;
    for (yx::CURI const& child : result.children)
        text += "child: " + host::printable(host::displayName(child)) + "\n";
    for (yx::CURI const& file : result.files)
        text += host::printable(host::displayName(file)) + "\n";
    return text;
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
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    warnOfEndedWork(mainFile);
    print(formatDrop(arguments.json,
                     withPassword(invocation, arguments.disk, arguments.passwords,
                                  [&] { return runDrop(invocation, arguments, mainFile); })));
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
    addFlag(command, "--json", arguments->json, "Print JSON");
    addThreadsOption(command, arguments->threads);
    arguments->passwords.addTo(command, "", "of the disks");
}

} // namespace kelm::tool
