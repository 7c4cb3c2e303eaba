#include <algorithm>
#include <limits>
#include <memory>

#include <CLI/CLI.hpp>

#include "host/backups/backup_pruning.h"
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

std::string joinReasons(host::RetentionReasons const& reasons) {
    std::string text;
    for (std::string const& reason : reasons)
        text += (text.empty() ? "" : ", ") + reason;
    return text;
}

std::string formatVerdicts(std::vector<host::PruneVerdict> const& verdicts) {
    constexpr std::size_t kTimeWidth = 22;
    std::string text;
    for (host::PruneVerdict const& verdict : verdicts) {
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

Json reportVerdicts(std::vector<host::PruneVerdict> const& verdicts) {
    Json disks = Json::array();
    for (host::PruneVerdict const& verdict : verdicts) {
        disks.push_back({{"file", host::displayName(verdict.disk.mainFile)},
                         {"time", verdict.disk.time},
                         {"keep", !verdict.reasons.empty()},
                         {"reasons", verdict.reasons}});
    }
    return disks;
}

void dropDisk(Invocation& invocation, PruneArguments& arguments, yx::CURI const& mainFile,
              host::DiskDropOptions options) {
    withPassword(invocation, host::displayName(mainFile), arguments.passwords, [&] {
        LongWork const work(invocation, "prune", arguments.threads);
        options.work = work.getOptions();
        options.password = usedPassword(invocation, arguments.passwords);
        host::DurableFiles steps;
        return invocation.getWait().retry(
            [&] { return host::DiskDrop(invocation.getFiles(), steps, mainFile, options).run(); });
    });
}

ExitStatus prune(Invocation& invocation, PruneArguments& arguments) {
    arguments.transfer.takeEffect(invocation);
    if (arguments.rules.isEmpty())
        throw UsageError("Say what is to be kept, such as --keep-daily 7.");
    std::vector<yx::CURI> folders;
    for (std::string const& folder : arguments.folders)
        folders.push_back(host::uriFromArgument(folder));
    host::PruneOptions options;
    options.rules = arguments.rules;
    options.label = arguments.label;
    options.drop.trust = invocation.getTrust();
    options.drop.verify = true;
    CommandResult& output = invocation.getResult();
    options.tell = [&output](std::vector<host::PruneVerdict> const& verdicts) {
        output.print(formatVerdicts(verdicts));
        output.add({{"disks", reportVerdicts(verdicts)}, {"done", false}});
    };
    options.dropDisk = [&](yx::CURI const& mainFile, host::DiskDropOptions const& drop) {
        dropDisk(invocation, arguments, mainFile, drop);
    };
    if (arguments.dryRun)
        options.tell(host::judgeBackups(invocation.getFiles(), folders, options));
    else
        host::pruneBackups(invocation.getFiles(), folders, options);
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
