#include <algorithm>
#include <limits>
#include <memory>

#include <CLI/CLI.hpp>

#include "host/backups/backup_list.h"
#include "host/backups/descriptor_mending.h"
#include "host/backups/disk_drop.h"
#include "host/backups/disk_note.h"
#include "host/backups/left_locks.h"
#include "host/backups/retention_policy.h"
#include "host/store/file_names.h"
#include "host/store/folder_files.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/transfer_options.h"

namespace kelm::tool {

namespace {

using host::BackupDisk;
using Json = nlohmann::ordered_json;

struct PruneArguments {
    std::vector<std::string> folders;
    host::RetentionRules rules;
    std::string label;
    bool dryRun = false;
    TransferOptions transfer;
    int threads = 0;
    PasswordOptions passwords;
};

/// A disk and what is to become of it.
struct Verdict {
    BackupDisk disk;

    /// Why it stays; empty for one that goes.
    host::RetentionReasons reasons = {};
};

bool isBelow(yx::CURI const& file, std::vector<yx::CURI> const& folders) {
    std::string const path = file.toNormalized().toString(true).toStdString();
    return std::any_of(folders.begin(), folders.end(), [&](yx::CURI const& folder) {
        return path.starts_with(folder.toNormalized().toString(true).toStdString() + "/");
    });
}

/// Why a disk stays, whatever the rules say; empty if they decide.
std::string findExemption(std::vector<BackupDisk> const& disks, std::size_t index,
                          PruneArguments const& arguments, std::vector<yx::CURI> const& folders) {
    BackupDisk const& disk = disks[index];
    if (!isBelow(disk.mainFile, folders))
        return "not in the folder";
    if (!arguments.label.empty() && disk.label != arguments.label)
        return "another label";
    if (disk.state != host::BackupState::Complete)
        return nameOf(disk.state);
    for (BackupDisk const& child : disks) {
        if (child.parent == index && child.state != host::BackupState::Complete)
            return std::string("its child is ") + nameOf(child.state);
    }
    return {};
}

std::vector<Verdict> judge(std::vector<BackupDisk> const& disks, PruneArguments const& arguments,
                           std::vector<yx::CURI> const& folders) {
    std::vector<Verdict> verdicts;
    std::vector<host::RetentionItem> items;
    std::vector<std::size_t> places;
    for (std::size_t index = 0; index < disks.size(); ++index) {
        BackupDisk const& disk = disks[index];
        std::string const exemption = findExemption(disks, index, arguments, folders);
        verdicts.push_back({disk});
        if (!exemption.empty()) {
            verdicts.back().reasons.push_back(exemption);
            continue;
        }
        places.push_back(index);
        items.push_back({disk.time, disk.source, disk.host});
    }
    std::vector<host::RetentionReasons> const reasons =
        host::RetentionPolicy(arguments.rules).judge(items);
    for (std::size_t i = 0; i < places.size(); ++i)
        verdicts[places[i]].reasons = reasons[i];
    return verdicts;
}

std::string joinReasons(host::RetentionReasons const& reasons) {
    std::string text;
    for (std::string const& reason : reasons)
        text += (text.empty() ? "" : ", ") + reason;
    return text;
}

std::string formatVerdicts(std::vector<Verdict> const& verdicts) {
    constexpr std::size_t kTimeWidth = 22;
    std::string text;
    for (Verdict const& verdict : verdicts) {
        std::string time = verdict.disk.time.empty() ? "-" : host::printable(verdict.disk.time);
        time.resize(std::max(time.size(), kTimeWidth), ' ');
        text += (verdict.reasons.empty() ? "drop  " : "keep  ") + time +
                host::printable(host::displayName(verdict.disk.mainFile));
        if (!verdict.reasons.empty())
            text += "  (" + joinReasons(verdict.reasons) + ")";
        text += "\n";
    }
    return text;
}

Json reportVerdicts(std::vector<Verdict> const& verdicts) {
    Json disks = Json::array();
    for (Verdict const& verdict : verdicts) {
        disks.push_back({{"file", host::displayName(verdict.disk.mainFile)},
                         {"time", verdict.disk.time},
                         {"keep", !verdict.reasons.empty()},
                         {"reasons", verdict.reasons}});
    }
    return disks;
}

void dropDisk(Invocation& invocation, PruneArguments& arguments, yx::CURI const& mainFile,
              std::vector<yx::CURI> const& folders) {
    withPassword(invocation, host::displayName(mainFile), arguments.passwords, [&] {
        LongWork const work(invocation, "prune", arguments.threads);
        host::DiskDropOptions options;
        options.trust = invocation.getTrust();
        options.lookIn = folders;
        options.verify = true;
        options.work = work.getOptions();
        options.password = usedPassword(invocation, arguments.passwords);
        host::DurableFiles steps;
        return invocation.getWait().retry(
            [&] { return host::DiskDrop(invocation.getFiles(), steps, mainFile, options).run(); });
    });
}

/// Disks whose main files are gone, and some of whose others are still there, since a program was
/// killed while it deleted them.
std::vector<yx::CURI> findHalfDeleted(Invocation& invocation,
                                      std::vector<yx::CURI> const& folders) {
    std::string const suffix = ".deleting";
    std::vector<yx::CURI> found;
    for (yx::CURI const& folder : folders) {
        for (yx::CURI const& file : host::listFilesBelow(folder)) {
            std::string const name = file.getName().toStdString();
            if (!name.ends_with(suffix))
                continue;
            yx::CURI const mainFile = (file.getParent() << yx::String::fromUTF8(
                                           name.substr(0, name.size() - suffix.size())))
                                          .toNormalized();
            if (!invocation.getFiles()->fileExists(mainFile) &&
                host::DiskNote::tryRead(invocation.getFiles(), mainFile,
                                        host::DiskNote::Work::Deleting))
                found.push_back(mainFile);
        }
    }
    return found;
}

ExitStatus prune(Invocation& invocation, PruneArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    if (arguments.rules.isEmpty())
        throw UsageError("Say what is to be kept, such as --keep-daily 7.");
    std::vector<yx::CURI> folders;
    for (std::string const& folder : arguments.folders)
        folders.push_back(host::uriFromArgument(folder));
    if (!arguments.dryRun) {
        host::DurableFiles steps;
        host::mendDescriptors(invocation.getFiles(), steps, folders);
    }
    std::vector<Verdict> const verdicts =
        judge(host::listBackups(invocation.getFiles(), folders), arguments, folders);
    CommandResult& output = invocation.getResult();
    output.print(formatVerdicts(verdicts));
    output.add({{"disks", reportVerdicts(verdicts)}, {"done", false}});
    if (!arguments.dryRun) {
        for (yx::CURI const& mainFile : findHalfDeleted(invocation, folders))
            dropDisk(invocation, arguments, mainFile, folders);
        // Children before their parents, so that what several links hold is copied once.
        for (auto verdict = verdicts.rbegin(); verdict != verdicts.rend(); ++verdict) {
            if (verdict->reasons.empty())
                dropDisk(invocation, arguments, verdict->disk.mainFile, folders);
        }
        host::removeLeftLocks(invocation.getFiles(), folders);
    }
    output.add({{"done", !arguments.dryRun}});
    return ExitStatus::Done;
}

void addRule(CLI::App& command, std::string const& name, int& target,
             std::string const& description) {
    addNumberOption(command, name, target, 0, std::numeric_limits<int>::max(), description);
}

} // namespace

void addPruneCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<PruneArguments>();
    CLI::App& command = addCommand(
        program, run, "prune",
        "Thin out the backups in folders: those that no rule keeps are taken out of their chains",
        "kelm prune . --keep-daily 7 --keep-weekly 4 --keep-monthly 12",
        [arguments](Invocation& invocation) { return prune(invocation, *arguments); });
    command.add_option("FOLDER", arguments->folders, "The folders, with all below them")
        ->required()
        ->type_name("");
    host::RetentionRules& rules = arguments->rules;
    addRule(command, "--keep-last", rules.last, "Keep the N newest backups of each source");
    addRule(command, "--keep-hourly", rules.hourly,
            "Keep the newest backup of each of the N newest hours that have any");
    addRule(command, "--keep-daily", rules.daily, "The same for days");
    addRule(command, "--keep-weekly", rules.weekly, "The same for weeks, which begin on Monday");
    addRule(command, "--keep-monthly", rules.monthly, "The same for months");
    addRule(command, "--keep-yearly", rules.yearly, "The same for years");
    addTextOption(command, "--label", arguments->label, "Judge only disks that have this label");
    addFlag(command, "--dry-run", arguments->dryRun, "Only say what would stay and what would go");
    addThreadsOption(command, arguments->threads);
    arguments->transfer.addTo(command);
    arguments->passwords.addTo(command, "", "of the disks");
}

} // namespace kelm::tool
