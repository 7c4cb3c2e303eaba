#include <algorithm>
#include <memory>

#include "host/backups/disk_unlocking.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"
#include "tools/kelm/output.h"

namespace kelm::tool {

namespace {

using UnlockJson = nlohmann::ordered_json;
using host::StoreHolder;

struct UnlockArguments {
    std::string disk;
    bool force = false;
};

char const* describeLife(StoreHolder::Life life) {
    switch (life) {
    case StoreHolder::Life::LivesHere:
        return "lives";
    case StoreHolder::Life::DiedHere:
        return "died";
    case StoreHolder::Life::Unknown:
        break;
    }
    return "unknown";
}

UnlockJson reportHolder(StoreHolder const& holder) {
    UnlockJson report{{"client", holder.number},
                      {"host", holder.host},
                      {"user", holder.user},
                      {"process", holder.process},
                      {"life", describeLife(holder.life)},
                      {"missed", holder.isMissed}};
    if (holder.connectedSeconds)
        report["connectedSeconds"] = *holder.connectedSeconds;
    UnlockJson files = UnlockJson::array();
    for (host::HeldFile const& file : holder.files)
        files.push_back({{"file", host::displayName(file.uri)},
                         {"open", file.isOpen},
                         {"forWriting", file.isOpenForWriting}});
    report["files"] = files;
    return report;
}

UnlockJson reportHolders(std::vector<StoreHolder> const& holders) {
    UnlockJson list = UnlockJson::array();
    for (StoreHolder const& holder : holders)
        list.push_back(reportHolder(holder));
    return list;
}

std::string orUnknown(std::string const& name) {
    return name.empty() ? "unknown" : host::printable(name);
}

std::string describeHolder(StoreHolder const& holder) {
    std::string text = "client " + host::printable(holder.number) + " on the host " +
                       orUnknown(holder.host) + ", process " + orUnknown(holder.process) +
                       ", user " + orUnknown(holder.user);
    if (holder.connectedSeconds)
        text += ", connected for " + std::to_string(*holder.connectedSeconds) + " s";
    if (holder.isMissed)
        text += ", not heard from any more";
    if (holder.life == StoreHolder::Life::LivesHere)
        text += ", which lives on this machine";
    if (holder.life == StoreHolder::Life::DiedHere)
        text += ", which has ended on this machine";
    return text;
}

std::string describeHolders(host::DiskUnlockResult const& result) {
    std::string text;
    for (StoreHolder const& holder : result.shutOut)
        text += "shut out: " + describeHolder(holder) + "\n";
    for (StoreHolder const& holder : result.holders)
        text += "held by: " + describeHolder(holder) + "\n";
    if (!result.refusal)
        return text + "free\n";
    if (!result.holders.empty())
        return text;
    if (result.whyUnknown)
        return text + "held, by whom is not known: " + host::describeError(*result.whyUnknown) +
               "\n";
    return text + (result.areHoldersKnown
                       ? "held for a moment, by whom is not known\n"
                       : "held by a process that lives; what it holds is free when it ends\n");
}

/// Tries until the disk is free, or the time is over that the user gives it.
host::DiskUnlockResult unlockPatiently(Invocation& invocation, yx::CURI const& mainFile,
                                       host::DiskUnlockOptions const& options) {
    host::DiskUnlockResult result;
    std::vector<StoreHolder> shutOut;
    auto const attempt = [&] {
        result = host::unlockDisk(invocation.getFiles(), mainFile, options);
        shutOut.insert(shutOut.end(), result.shutOut.begin(), result.shutOut.end());
        if (result.refusal)
            throw yx::CLockFileError(*result.refusal);
    };
    try {
        invocation.getWait().retry(attempt);
    } catch (yx::CLockFileError const&) {
        if (!result.refusal)
            throw;
    }
    result.shutOut = shutOut;
    return result;
}

ExitStatus unlock(Invocation& invocation, UnlockArguments const& arguments) {
    yx::CURI const mainFile = host::nameToUnlock(arguments.disk);
    host::DiskUnlockOptions options;
    options.force = arguments.force;
    options.trust = invocation.getTrust();
    options.cancel = &invocation.getCancel();
    host::DiskUnlockResult const result = unlockPatiently(invocation, mainFile, options);
    CommandResult& told = invocation.getResult();
    told.add({{"file", host::displayName(result.mainFile)},
              {"free", !result.refusal},
              {"holdersKnown", result.areHoldersKnown},
              {"holders", reportHolders(result.holders)},
              {"shutOut", reportHolders(result.shutOut)}});
    told.print(describeHolders(result));
    if (!result.refusal)
        return ExitStatus::Done;
    // The error drops what has not been written yet.
    flushOutput();
    bool const isForceOfUse =
        !arguments.force &&
        std::any_of(result.holders.begin(), result.holders.end(), [](StoreHolder const& holder) {
            return holder.life == StoreHolder::Life::Unknown;
        });
    throw DiskHeldError(*result.refusal, isForceOfUse);
}

} // namespace

void addUnlockCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<UnlockArguments>();
    CLI::App& command = addCommand(
        program, run, "unlock", "Say who holds a disk, and free it of those who have died",
        "kelm unlock backup.vmdk",
        [arguments](Invocation& invocation) { return unlock(invocation, *arguments); });
    addFileArgument(command, "DISK", arguments->disk, "The main file of the disk");
    addFlag(command, "--force", arguments->force,
            "Have the store shut out those on other machines who hold the disk: they are dead");
}

} // namespace kelm::tool
