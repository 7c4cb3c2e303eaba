#include <cerrno>
#include <cstdlib>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "host/system/file_descriptor.h"
#include "tools/kelm/commands.h"
#include "tools/kelm/mount_record.h"
#include "tools/kelm/options.h"

namespace kelm::tool {

namespace {

/// Also where what is mounted there cannot be reached any more.
std::string nameOfMountPoint(std::string const& folder) {
    std::unique_ptr<char, decltype(&std::free)> const resolved(::realpath(folder.c_str(), nullptr),
                                                               &std::free);
    if (resolved)
        return resolved.get();
    if (errno == ENOENT || folder.empty() || folder.front() != '/')
        host::throwSystemError("Cannot find the folder", folder);
    return folder;
}

ExitStatus unmountDisk(Invocation& invocation, std::string const& argument) {
    std::string const folder = nameOfMountPoint(argument);
    MountRecord const record = MountRecord::find(folder);
    std::string const disk = record.readDisk();
    record.takeDown(&invocation.getCancel());
    invocation.getResult().add({{"file", disk}, {"folder", folder}});
    return ExitStatus::Done;
}

} // namespace

void addUmountCommand(CLI::App& program, Run& run) {
    auto const folder = std::make_shared<std::string>();
    CLI::App& command = addPlainCommand(
        program, run, "umount", "Take away the files that 'mount' shows", "kelm umount /mnt",
        [folder](Invocation& invocation) { return unmountDisk(invocation, *folder); });
    addFileArgument(command, "FOLDER", *folder, "The folder");
}

} // namespace kelm::tool
