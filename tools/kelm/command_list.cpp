#include <algorithm>
#include <memory>

#include <CLI/CLI.hpp>

#include "host/backups/backup_list.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "host/system/size_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/list_picture.h"
#include "tools/kelm/options.h"
#include "tools/kelm/picture_file.h"

namespace kelm::tool {

namespace {

using host::BackupDisk;
using Json = nlohmann::ordered_json;

struct ListArguments {
    std::vector<std::string> folders;
    std::string picture;
    bool force = false;
    int storeTimeoutSeconds = 0;
};

void addText(Json& report, char const* name, std::string const& text) {
    if (!text.empty())
        report[name] = text;
}

Json reportBackup(std::vector<BackupDisk> const& disks, BackupDisk const& disk) {
    Json report;
    report["file"] = host::displayName(disk.mainFile);
    report["state"] = nameOf(disk.state);
    addText(report, "problem", disk.problem);
    addText(report, "time", disk.time);
    addText(report, "source", disk.source);
    addText(report, "host", disk.host);
    addText(report, "label", disk.label);
    report["sizeBytes"] = disk.sizeBytes;
    if (disk.imageBytes)
        report["imageBytes"] = *disk.imageBytes;
    report["ownBytes"] = disk.ownBytes;
    report["compressed"] = disk.isCompressed;
    report["encrypted"] = disk.isEncrypted;
    report["onDemand"] = disk.isOnDemand;
    report["files"] = disk.fileCount;
    if (!disk.parentFile.isEmpty()) {
        report["parent"] =
            host::displayName(disk.parent ? disks[*disk.parent].mainFile : disk.parentFile);
    }
    report["parents"] = disk.parentCount;
    report["parentsLeft"] = std::max(0, host::kMaxDisksOfChain - 1 - disk.parentCount);
    report["dependents"] = disk.dependentCount;
    return report;
}

Json reportAll(std::vector<BackupDisk> const& disks) {
    Json list = Json::array();
    for (BackupDisk const& disk : disks)
        list.push_back(reportBackup(disks, disk));
    return list;
}

std::string padded(std::string text, std::size_t width) {
    text.resize(std::max(text.size(), width), ' ');
    return text;
}

std::string rightAligned(std::string const& text, std::size_t width) {
    return std::string(width - std::min(width, text.size()), ' ') + text;
}

std::string row(std::string const& time, std::string const& size, std::string const& own,
                std::string const& links, std::string const& dependents, std::string const& state,
                std::string const& name) {
    return padded(time, 22) + rightAligned(size, 10) + rightAligned(own, 12) +
           rightAligned(links, 6) + rightAligned(dependents, 8) + "  " + padded(state, 16) + name +
           "\n";
}

std::string formatDisk(BackupDisk const& disk) {
    std::string name = host::displayName(disk.mainFile);
    if (!disk.label.empty())
        name += "  (" + disk.label + ")";
    std::string text =
        row(disk.time.empty() ? "-" : host::printable(disk.time),
            host::formatSize(disk.imageBytes.value_or(disk.sizeBytes)),
            host::formatSize(disk.ownBytes), std::to_string(disk.parentCount + 1),
            std::to_string(disk.dependentCount), nameOf(disk.state), host::printable(name));
    if (!disk.problem.empty())
        text += "    " + host::printable(disk.problem) + "\n";
    return text;
}

std::string formatLongChains(std::vector<BackupDisk> const& disks) {
    std::string text;
    for (BackupDisk const& disk : disks) {
        if (disk.dependentCount > 0 || disk.parentCount + 1 < host::kLongChain)
            continue;
        text += "\n" + host::printable(host::displayName(disk.mainFile)) + " is disk " +
                std::to_string(disk.parentCount + 1) + " of its chain, which ends at " +
                std::to_string(host::kMaxDisksOfChain) +
                ". Take links out with "
                "'kelm prune' or 'kelm drop', or begin a new chain with a full disk.\n";
    }
    return text;
}

std::string formatAll(std::vector<BackupDisk> const& disks) {
    if (disks.empty())
        return "no disks\n";
    std::string text = row("TIME", "SIZE", "OWN", "LINK", "NEEDED", "STATE", "DISK");
    __int64 ownBytes = 0;
    int chains = 0;
    for (BackupDisk const& disk : disks) {
        if (!disk.parent && chains++ > 0)
            text += "\n";
        text += formatDisk(disk);
        ownBytes += disk.ownBytes;
    }
    return text + "\n" + std::to_string(disks.size()) + (disks.size() == 1 ? " disk" : " disks") +
           " in " + std::to_string(chains) + (chains == 1 ? " chain, " : " chains, ") +
           host::formatSize(ownBytes) + "\n" + formatLongChains(disks);
}

ExitStatus list(Invocation& invocation, ListArguments& arguments) {
    if (arguments.picture == "-")
        invocation.getResult().leaveStandardOutput();
    std::vector<yx::CURI> folders;
    for (std::string const& folder : arguments.folders)
        folders.push_back(host::uriFromArgument(folder));
    std::vector<BackupDisk> const disks = host::listBackups(invocation.getFiles(), folders);
    invocation.getResult().add({{"folders", listNames(folders)}, {"disks", reportAll(disks)}});
    if (arguments.picture.empty())
        invocation.getResult().print(formatAll(disks));
    else
        writePicture(invocation, drawBackups(disks), arguments.picture, arguments.force);
    return ExitStatus::Done;
}

} // namespace

void addListCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<ListArguments>();
    CLI::App& command = addPlainCommand(
        program, run, "list", "List the disks below folders, and how they hang together",
        "kelm list /backup/\n"
        "  kelm list /backup/ --svg backup.svg",
        [arguments](Invocation& invocation) {
            invocation.setStoreTimeout(std::chrono::seconds(arguments->storeTimeoutSeconds));
            return list(invocation, *arguments);
        });
    command.add_option("FOLDER", arguments->folders, "A folder; those below it are listed too")
        ->required()
        ->type_name("");
    addFileOption(command, "--svg", arguments->picture, "Draw the chains over time into this file",
                  false);
    addForceOption(command, arguments->force);
    addStoreTimeoutOption(command, arguments->storeTimeoutSeconds);
}

} // namespace kelm::tool
