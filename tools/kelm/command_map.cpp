#include <algorithm>
#include <cassert>
#include <memory>

#include "host/system/name_text.h"
#include "host/transfer/disk_map.h"
#include "host/transfer/disk_space.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/disk_report.h"
#include "tools/kelm/map_picture.h"
#include "tools/kelm/options.h"
#include "tools/kelm/picture_file.h"

namespace kelm::tool {

namespace {

struct MapArguments {
    std::string disk;
    bool unfinished = false;
    std::string picture;
    bool force = false;
    PasswordOptions passwords;
};

std::string inColumn(std::string const& digits) {
    constexpr std::size_t kWidth = 15;
    return std::string(kWidth - std::min(kWidth, digits.size()), ' ') + digits;
}

/// Without the JSON library, since there may be millions of runs.
std::string formatElementOf(host::GrainRun const& run) {
    return "{\"startBytes\":" + std::to_string(run.startBytes) +
           ",\"lengthBytes\":" + std::to_string(run.lengthBytes) + ",\"place\":\"" +
           nameOf(run.place) + "\"}";
}

std::string formatLineOf(host::GrainRun const& run) {
    return inColumn(std::to_string(run.startBytes)) + " " +
           inColumn(std::to_string(run.lengthBytes)) + " " + nameOf(run.place) + "\n";
}

void draw(Invocation& invocation, host::SafeDisk& disk, MapArguments const& arguments) {
    std::string const title = disk.getDisk().getMainFileURI().getName().toStdString();
    MapPicture picture(host::printable(title), disk.getSizeBytes(), disk.getGrainSizeBytes());
    {
        LongWork const work(invocation, "map");
        host::forEachGrainRun(disk, work.getOptions(),
                              [&](host::GrainRun const& run) { picture.addRun(run); });
        picture.setSpace(host::gatherSpace(disk, work.getOptions()));
    }
    writePicture(invocation, picture.draw(), arguments.picture, arguments.force);
}

void list(Invocation& invocation, host::SafeDisk& disk) {
    // The lines themselves show progress, and a bar would break them up.
    host::WorkOptions options;
    options.cancel = &invocation.getCancel();
    CommandResult& result = invocation.getResult();
    result.add({{"file", host::displayName(disk.getDisk().getMainFileURI())},
                {"sizeBytes", disk.getSizeBytes()},
                {"grainSizeBytes", disk.getGrainSizeBytes()}});
    // One by one, since all of them may not fit into memory.
    result.beginList("runs");
    host::forEachGrainRun(disk, options, [&](host::GrainRun const& run) {
        assert(run.lengthBytes > 0);
        if (result.isJSON())
            result.addToList(formatElementOf(run));
        else
            result.print(formatLineOf(run));
    });
}

ExitStatus map(Invocation& invocation, MapArguments& arguments) {
    if (arguments.picture == "-")
        invocation.getResult().leaveStandardOutput();
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    if (!arguments.picture.empty()) {
        verifyIsNoFileOf(invocation, *disk, usedPassword(invocation, arguments.passwords),
                         arguments.picture);
    }
    // The picture comes last, so that an interruption leaves none.
    if (invocation.getResult().isJSON() || arguments.picture.empty())
        list(invocation, *disk);
    if (!arguments.picture.empty())
        draw(invocation, *disk, arguments);
    return ExitStatus::Done;
}

} // namespace

void addMapCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<MapArguments>();
    CLI::App& command =
        addCommand(program, run, "map",
                   "Show which parts of a disk it holds itself, and which its parents hold",
                   "kelm map backup.vmdk --svg backup.svg",
                   [arguments](Invocation& invocation) { return map(invocation, *arguments); });
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    addUnfinishedOption(command, arguments->unfinished);
    addFileOption(command, "--svg", arguments->picture, "Draw the disk as a picture", false);
    addForceOption(command, arguments->force);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
