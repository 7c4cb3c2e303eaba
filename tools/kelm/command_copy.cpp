#include <memory>

#include "host/backups/disk_copy.h"
#include "host/backups/disk_upload.h"
#include "host/store/file_names.h"
#include "host/store/stores.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

struct CopyArguments {
    std::string from;
    std::string to;
    TransferOptions transfer;
};

ExitStatus copyDisk(Invocation& invocation, CopyArguments const& arguments) {
    arguments.transfer.takeEffect(invocation);
    yx::CURI const from = host::uriFromArgument(arguments.from);
    yx::CURI const to = nameIn(arguments.to, arguments.from);
    warnOfEndedWork(invocation, from);
    LongWork const work(invocation, "copy");
    host::DiskCopyOptions options;
    options.trust = invocation.getTrust();
    options.work = work.getOptions();
    host::DurableFiles steps;
    steps.setMeter(&invocation.getMeter());
    std::vector<yx::CURI> const files = invocation.getWait().retry([&] {
        if (host::findUpload(to))
            return host::DiskUpload(invocation.getFiles(), from, to, options).run();
        return host::DiskCopy(invocation.getFiles(), steps, from, to, options).run();
    });
    invocation.getResult().add({{"files", listNames(files)}});
    invocation.getResult().print(formatNames(files));
    return ExitStatus::Done;
}

} // namespace

void addCopyCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<CopyArguments>();
    CLI::App& command =
        addCommand(program, run, "copy", "Copy a disk with all of its files, and compare the copy",
                   "kelm copy tuesday.vmdk /backup/", [arguments](Invocation& invocation) {
                       return copyDisk(invocation, *arguments);
                   });
    addFileArgument(command, "OLD", arguments->from, "The main file of the disk");
    addFileArgument(command, "NEW", arguments->to, "The main file of the copy, or a folder");
    arguments->transfer.addTo(command);
}

} // namespace kelm::tool
