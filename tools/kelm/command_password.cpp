#include <algorithm>
#include <memory>

#include "host/backups/disk_parts.h"
#include "host/backups/password_change.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "yx/log.h"

namespace kelm::tool {

namespace {

struct PasswordArguments {
    std::string disk;
    bool withParents = false;
    int rounds = -1;
    std::vector<std::string> lookIn;
    PasswordOptions before;
    PasswordOptions after;
};

/// Children that keep the password which their parent had need a second one from now on.
void warnOfOtherChildren(Invocation& invocation, std::vector<yx::CURI> const& changed,
                         std::vector<yx::CURI> const& folders) {
    std::vector<yx::CURI> others =
        host::DiskRelations(invocation.getFiles(), folders).findDescendants(changed.back());
    std::erase_if(others, [&](yx::CURI const& disk) {
        return std::find(changed.begin(), changed.end(), disk) != changed.end();
    });
    for (yx::CURI const& disk : host::listEncrypted(invocation.getFiles(), others)) {
        yx::logWarning(yx::String::fromUTF8(
            "'" + host::printable(host::displayName(disk)) +
            "' keeps its password, and needs --parent-password-file for its parents now."));
    }
}

/// Parents that keep their password make it two of which the disk needs both.
void warnOfParents(Invocation& invocation, yx::CURI const& mainFile) {
    yx::CURI const parent = host::readDiskParts(invocation.getFiles(), mainFile).parentFile;
    if (parent.isEmpty() || !invocation.getFiles()->fileExists(parent) ||
        host::listEncrypted(invocation.getFiles(), {parent}).empty())
        return;
    yx::logWarning("The parents keep their password; give it by --parent-password-file, or change "
                   "it too by --chain.");
}

ExitStatus changePassword(Invocation& invocation, PasswordArguments& arguments) {
    yx::CURI const uri = host::uriFromArgument(arguments.disk);
    warnOfEndedWork(invocation, uri);
    host::CancelFlag const& cancel = invocation.getCancel();
    host::PasswordChange change;
    change.before.ofDisk =
        arguments.before
            .readOrPrompt("Password of " + host::printable(arguments.disk), false, cancel)
            .get();
    change.before.ofParents = invocation.readParentPassword();
    change.after = arguments.after.readOrPrompt("New password", true, cancel).get();
    change.derivation = host::drawKeyDerivation(chooseRounds(arguments.rounds));
    change.withParents = arguments.withParents;
    change.trust = invocation.getTrust();
    deriveKeys(invocation, uri, change.before.ofDisk);
    host::DurableFiles steps;
    std::vector<yx::CURI> const changed = invocation.getWait().retry(
        [&] { return host::changePassword(invocation.getFiles(), steps, uri, change); });
    if (!arguments.withParents)
        warnOfParents(invocation, uri);
    warnOfOtherChildren(invocation, changed, foldersToLookIn(arguments.lookIn, uri));
    invocation.getResult().add({{"changed", listNames(changed)}});
    invocation.getResult().print(formatNames(changed));
    return ExitStatus::Done;
}

} // namespace

void addPasswordCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<PasswordArguments>();
    CLI::App& command = addCommand(
        program, run, "password", "Give an encrypted disk another password; its data stay",
        "kelm password tuesday.vmdk --chain --password-file old --new-password-file new",
        [arguments](Invocation& invocation) { return changePassword(invocation, *arguments); });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addFlag(command, "--chain", arguments->withParents, "Change the parents too, and theirs");
    addRoundsOption(command, arguments->rounds);
    addLookOption(command, arguments->lookIn);
    arguments->before.addTo(command, "", "of the disk");
    arguments->after.addTo(command, "new-", "that the disk is to have");
}

} // namespace kelm::tool
