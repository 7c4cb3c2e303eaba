#include <cstdio>
#include <memory>

#include <nlohmann/json.hpp>

#include "host/disk_map.h"
#include "host/file_names.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/disk_access.h"
#include "tools/kelm/map_picture.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

using Json = nlohmann::ordered_json;

struct Arguments {
    std::string disk;
    bool json = false;
    std::string picture;
    bool force = false;
    PasswordOptions passwords;
};

char const* nameOf(host::GrainPlace place) {
    switch (place) {
    case host::GrainPlace::Here:
        return "here";
    case host::GrainPlace::Parent:
        return "parent";
    case host::GrainPlace::Absent:
        break;
    }
    return "absent";
}

void printRuns(std::vector<host::GrainRun> const& runs) {
    for (host::GrainRun const& run : runs)
        std::printf("%15lld %15lld %s\n", run.startBytes, run.lengthBytes, nameOf(run.place));
}

void printJson(host::SafeDisk& disk, std::vector<host::GrainRun> const& runs) {
    Json list = Json::array();
    for (host::GrainRun const& run : runs) {
        list.push_back({{"startBytes", run.startBytes},
                        {"lengthBytes", run.lengthBytes},
                        {"place", nameOf(run.place)}});
    }
    Json const report = {{"file", host::displayName(disk.getDisk().getMainFileURI())},
                         {"sizeBytes", disk.getSizeBytes()},
                         {"grainSizeBytes", disk.getGrainSizeBytes()},
                         {"runs", list}};
    std::printf("%s\n", report.dump(2).c_str());
}

void writePicture(host::SafeDisk& disk, std::vector<host::GrainRun> const& runs,
                  Arguments const& arguments) {
    yx::P<CVMDKSpaceInfo> const space = disk.getDisk().gatherSpaceInfo();
    MapPicture picture;
    picture.title = disk.getDisk().getMainFileURI().getName().toStdString();
    picture.sizeBytes = disk.getSizeBytes();
    picture.grainSizeBytes = disk.getGrainSizeBytes();
    picture.runs = runs;
    picture.tableBytes = space->getHeaderSize();
    picture.grainBytes = space->getPayloadSizeInFile();
    picture.deadBytes = space->getDeadSpaceSize();
    std::string const text = drawMap(picture);
    host::RawTarget target(arguments.picture, arguments.force);
    target.write(reinterpret_cast<unsigned char const*>(text.data()),
                 static_cast<int>(text.size()));
    target.finish();
}

ExitStatus map(Invocation& invocation, Arguments& arguments) {
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    std::vector<host::GrainRun> runs;
    {
        LongWork const work(invocation, "map");
        runs = host::mapDisk(*disk, work.getOptions());
    }
    if (!arguments.picture.empty())
        writePicture(*disk, runs, arguments);
    if (arguments.json)
        printJson(*disk, runs);
    else if (arguments.picture.empty())
        printRuns(runs);
    return ExitStatus::Done;
}

} // namespace

void addMapCommand(CLI::App& program, Run& run) {
    auto const arguments = std::make_shared<Arguments>();
    CLI::App& command = *program.add_subcommand(
        "map", "Tell which parts of a disk it holds itself, and which its parents hold");
    addFileArgument(command, "MAIN", arguments->disk, "The main file of the disk");
    command.add_flag("--json", arguments->json, "Print JSON");
    command.add_option("--svg", arguments->picture, "Draw the disk as a picture")
        ->type_name("FILE");
    addForceOption(command, arguments->force);
    arguments->passwords.addTo(command, "", "of the disk");
    setExample(command, "kelm map backup.vmdk --svg backup.svg");
    command.callback([arguments, &run] {
        run = [arguments](Invocation& invocation) { return map(invocation, *arguments); };
    });
}

} // namespace kelm::tool
