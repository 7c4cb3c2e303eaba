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
#include "tools/kelm/output.h"
#include "tools/kelm/picture_file.h"

namespace kelm::tool {

namespace {

struct MapArguments {
    std::string disk;
    bool json = false;
    bool unfinished = false;
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

/// Prints the runs one by one, since all of them may not fit into memory.
class RunPrinter {
public:
    RunPrinter(host::SafeDisk& disk, bool json) : m_json(json) {
        if (!json)
            return;
        std::string const head =
            formatJSON({{"file", host::displayName(disk.getDisk().getMainFileURI())},
                        {"sizeBytes", disk.getSizeBytes()},
                        {"grainSizeBytes", disk.getGrainSizeBytes()}});
        // Without the brace and its line.
        print(head.substr(0, head.size() - 2) + ",\n  \"runs\": [");
    }

    void add(host::GrainRun const& run) {
        assert(!m_isFinished && run.lengthBytes > 0);
        std::string const start = std::to_string(run.startBytes);
        std::string const length = std::to_string(run.lengthBytes);
        // Without the JSON library, since there may be millions of runs.
        if (m_json)
            print(std::string(m_first ? "" : ",") + "\n    {\"startBytes\":" + start +
                  ",\"lengthBytes\":" + length + ",\"place\":\"" + nameOf(run.place) + "\"}");
        else
            print(inColumn(start) + " " + inColumn(length) + " " + nameOf(run.place) + "\n");
        m_first = false;
    }

    void finish() {
        assert(!m_isFinished);
        m_isFinished = true;
        if (m_json)
            print(m_first ? "]\n}\n" : "\n  ]\n}\n");
    }

private:
    static std::string inColumn(std::string const& digits) {
        constexpr std::size_t kWidth = 15;
        return std::string(kWidth - std::min(kWidth, digits.size()), ' ') + digits;
    }

    bool m_json;
    bool m_first = true;
    bool m_isFinished = false;
};

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

void list(Invocation& invocation, host::SafeDisk& disk, MapArguments const& arguments) {
    // The lines themselves show progress, and a bar would break them up.
    host::WorkOptions options;
    options.cancel = &invocation.getCancel();
    RunPrinter printer(disk, arguments.json);
    host::forEachGrainRun(disk, options, [&](host::GrainRun const& run) { printer.add(run); });
    printer.finish();
}

ExitStatus map(Invocation& invocation, MapArguments& arguments) {
    if (arguments.unfinished)
        invocation.allowUnfinished(host::UnfinishedDisks::InChain);
    std::unique_ptr<host::SafeDisk> const disk =
        openDisk(invocation, arguments.disk, yx::IIOStream::ReadOnly, arguments.passwords);
    if (!arguments.picture.empty()) {
        verifyIsNoFileOf(invocation, *disk, usedPassword(invocation, arguments.passwords),
                         arguments.picture);
    }
    // The picture comes last, so that an interruption leaves none.
    if (arguments.json || arguments.picture.empty())
        list(invocation, *disk, arguments);
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
    addFlag(command, "--json", arguments->json, "Print JSON");
    addUnfinishedOption(command, arguments->unfinished);
    addFileOption(command, "--svg", arguments->picture, "Draw the disk as a picture", false);
    addForceOption(command, arguments->force);
    arguments->passwords.addTo(command, "", "of the disk");
}

} // namespace kelm::tool
