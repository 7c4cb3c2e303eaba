#include <memory>
#include <string>
#include <vector>

#include "host/backups/disk_parts.h"
#include "host/store/file_names.h"
#include "host/system/name_text.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/errors.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

using Json = nlohmann::ordered_json;

struct InfoArguments {
    std::string disk;
    bool space = false;
    std::vector<std::string> lookIn;
    PasswordOptions passwords;
};

/// The chain of parents. If one of them cannot be opened, the error takes the place of the chain:
/// that is what the user needs to know.
Json reportParents(Invocation& invocation, host::SafeDisk& disk, yx::String const& password) {
    Json parents = Json::array();
    if (!disk.hasParent())
        return parents;
    try {
        for (std::unique_ptr<host::SafeDisk> const& parent :
             openParents(invocation, disk, password)) {
            CVMDKDisk& opened = parent->getDisk();
            parents.push_back(
                {{"file", host::displayName(opened.getMainFileURI())},
                 {"contentID",
                  yx::toHexString(opened.getDescriptor()->getContentID()).toStdString()}});
        }
    } catch (yx::CError const& error) {
        parents = Json::array({{{"file", host::displayName(disk.getDisk().getParentDiskMainURI())},
                                {"error", describeError(error)}}});
    }
    return parents;
}

/// The disks that need this one, their children included.
Json reportDependents(Invocation& invocation, InfoArguments const& arguments) {
    yx::CURI const mainFile = host::uriFromArgument(arguments.disk);
    host::DiskRelations const relations(invocation.getFiles(),
                                        foldersToLookIn(arguments.lookIn, mainFile));
    return listNames(relations.findDescendants(mainFile));
}

ExitStatus showInfo(Invocation& invocation, InfoArguments& arguments) {
    invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    Json report = reportDisk(*disk);
    report["parents"] =
        reportParents(invocation, *disk, usedPassword(invocation, arguments.passwords));
    bool const isWholeChain = !disk->hasParent() || !report["parents"].back().contains("error");
    if (isWholeChain)
        report["link"] = report["parents"].size() + 1;
    if (!arguments.lookIn.empty())
        report["neededBy"] = reportDependents(invocation, arguments);
    if (arguments.space) {
        LongWork const work(invocation, "info");
        report["space"] = reportSpace(*disk, work.getOptions());
    }
    invocation.getResult().add(report);
    invocation.getResult().print(formatReport(report));
    return ExitStatus::Done;
}

} // namespace

void addInfoCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<InfoArguments>();
    CLI::App& command = addCommand(
        program, run, "info", "Show what a disk is", "kelm info backup.vmdk --space",
        [arguments](Invocation& invocation) { return showInfo(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addFlag(command, "--space", arguments->space,
            "Show also how much space the grains take; reads all tables of the disk");
    addFoldersOption(command, "--look", arguments->lookIn,
                     "List the disks below this folder that need this one; may be given several "
                     "times");
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
