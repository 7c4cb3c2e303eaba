#include <map>
#include <memory>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "host/transfer/exact_size.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/local_file.h"
#include "tools/kelm/options.h"
#include "tools/kelm/salvaging.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

std::map<std::string, host::ZeroPolicy> const kZeroPolicies{{"write", host::ZeroPolicy::Write},
                                                            {"punch", host::ZeroPolicy::Punch},
                                                            {"skip", host::ZeroPolicy::Skip}};

struct ExportArguments {
    std::string disk;
    std::string image;
    std::string zeros = "punch";
    int threads = 0;
    bool force = false;
    bool unfinished = false;
    TransferOptions transfer;
    SalvageFlags salvage;
    PasswordOptions passwords;
};

host::RawTarget openTarget(Invocation const& invocation, ExportArguments const& arguments) {
    return {arguments.image, arguments.force, &invocation.getCancel(),
            kZeroPolicies.at(arguments.zeros)};
}

void tellZeros(Invocation& invocation, host::TargetZeros const& zeros) {
    invocation.getResult().add({{"zeros",
                                 {{"punchedBytes", zeros.punchedBytes},
                                  {"leftBytes", zeros.leftBytes},
                                  {"writtenBytes", zeros.writtenBytes}}}});
}

ExitStatus salvageImage(Invocation& invocation, ExportArguments& arguments) {
    std::unique_ptr<host::SalvagedDisk> const disk =
        openToSalvage(invocation, arguments.disk, arguments.salvage, arguments.passwords);
    if (std::optional<yx::CURI> const image = tryNameRegularFile(arguments.image))
        verifyIsNoneOf(disk->listFiles(), *image);
    host::RawTarget target = openTarget(invocation, arguments);
    LongWork work(invocation, "export", arguments.threads);
    host::exportSalvaged(*disk, target, host::getSalvagedSizeBytes(*disk, &invocation.getCancel()),
                         work.getOptions());
    work.hideBar();
    tellZeros(invocation, target.getZeros());
    return reportDamage(invocation, disk->getDamage(), arguments.image == "-");
}

ExitStatus exportImage(Invocation& invocation, ExportArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    verifyIsOnThisMachine("The image", arguments.image);
    if (arguments.image == "-")
        invocation.getResult().leaveStandardOutput();
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    if (arguments.salvage.takeEffect())
        return salvageImage(invocation, arguments);
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    verifyIsNoFileOf(invocation, *disk, usedPassword(invocation, arguments.passwords),
                     arguments.image);
    host::RawTarget target = openTarget(invocation, arguments);
    LongWork const work(invocation, "export", arguments.threads);
    host::exportRaw(*disk, target, work.getOptions());
    invocation.tellSkipped(host::getExactSizeBytes(*disk));
    tellZeros(invocation, target.getZeros());
    return ExitStatus::Done;
}

} // namespace

void addExportCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<ExportArguments>();
    CLI::App& command = addCommand(
        program, run, "export", "Make a raw image of a disk",
        "kelm export backup.vmdk restored.img\n"
        "  kelm export backup.vmdk - | zstd > backup.img.zst",
        [arguments](Invocation& invocation) { return exportImage(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addFileArgument(command, "RAW", arguments->image,
                    "The image: a file, a block device, or '-' for standard output");
    addForceOption(command, arguments->force);
    command
        .add_option("--zeros", arguments->zeros,
                    "What becomes of zeros in a file or on a device: punch (holes, the default), "
                    "write, or skip (what is there stays)")
        ->type_name("KIND")
        ->check(CLI::IsMember({"punch", "write", "skip"}));
    addUnfinishedOption(command, arguments->unfinished);
    arguments->salvage.addTo(command);
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
