#include <memory>

#include "host/check/repair.h"
#include "host/check/undo_file.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

struct RepairArguments {
    std::string disk;
    bool isDryRun = false;
    bool isUndo = false;
    PasswordOptions passwords;
};

std::string formatRepair(host::RepairReport const& report, bool isDryRun) {
    char const* const done = isDryRun ? ": would mend " : ": mended ";
    std::string text;
    for (host::FileRepair const& file : report.files) {
        std::string const name = host::printable(host::displayName(file.file));
        for (std::string const& sentence : file.mended)
            text.append(name).append(done).append(sentence).append("\n");
        for (std::string const& sentence : file.left)
            text.append(name).append(": left as it is: ").append(sentence).append("\n");
    }
    return text;
}

nlohmann::ordered_json reportRepair(host::RepairReport const& report, bool isDryRun) {
    nlohmann::ordered_json files = nlohmann::ordered_json::array();
    for (host::FileRepair const& file : report.files) {
        files.push_back(
            {{"file", host::displayName(file.file)}, {"mended", file.mended}, {"left", file.left}});
    }
    return {{"dryRun", isDryRun}, {"files", files}};
}

ExitStatus statusOf(host::RepairReport const& report, bool isDryRun) {
    if (report.hasLeft())
        return ExitStatus::Damaged;
    return isDryRun && report.hasMended() ? ExitStatus::Differences : ExitStatus::Done;
}

host::RepairReport repairWith(Invocation& invocation, RepairArguments const& arguments,
                              yx::String const& password) {
    return invocation.getWait().retry([&] {
        return host::repairDisk(
            invocation.getFiles(), host::uriFromArgument(arguments.disk), password,
            {arguments.isDryRun, invocation.getTrust(), &invocation.getCancel()});
    });
}

host::RepairReport repairAskingForPassword(Invocation& invocation, RepairArguments& arguments) {
    try {
        return repairWith(invocation, arguments, usedPassword(invocation, arguments.passwords));
    } catch (yx::CError const& error) {
        if (!isPasswordMissing(error))
            throw;
    }
    return repairWith(invocation, arguments,
                      askForPassword(invocation, arguments.disk, arguments.passwords).get());
}

ExitStatus undo(Invocation& invocation, RepairArguments const& arguments) {
    __int64 const count = invocation.getWait().retry([&] {
        return host::undoRepair(invocation.getFiles(), host::uriFromArgument(arguments.disk),
                                invocation.getTrust());
    });
    invocation.getResult().add({{"sectorsBroughtBack", count}});
    invocation.getResult().print(std::to_string(count) + " sectors brought back\n");
    return ExitStatus::Done;
}

ExitStatus repair(Invocation& invocation, RepairArguments& arguments) {
    invocation.setLong();
    if (arguments.isUndo && arguments.isDryRun)
        throw UsageError("--undo and --dry-run exclude each other.");
    if (arguments.isUndo)
        return undo(invocation, arguments);
    host::RepairReport const report = repairAskingForPassword(invocation, arguments);
    invocation.getResult().add(reportRepair(report, arguments.isDryRun));
    invocation.getResult().print(formatRepair(report, arguments.isDryRun));
    return statusOf(report, arguments.isDryRun);
}

} // namespace

void addRepairCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<RepairArguments>();
    CLI::App& command = addCommand(
        program, run, "repair", "Put headers and tables of a disk right, as far as can be known",
        "kelm repair backup.vmdk --dry-run\n  kelm repair backup.vmdk && kelm check backup.vmdk",
        [arguments](Invocation& invocation) { return repair(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addFlag(command, "--dry-run", arguments->isDryRun, "Only say what would be done");
    addFlag(command, "--undo", arguments->isUndo, "Take the last repair back");
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
