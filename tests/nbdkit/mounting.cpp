#include "tests/nbdkit/mounting.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

namespace nbdkit {

namespace {

using test_support::Outcome;
using test_support::RunningProgram;

/// Takes away what is mounted on a folder.
Outcome unmount(std::filesystem::path const& mountPoint) {
    return RunningProgram(mountPoint.parent_path(), {"umount", mountPoint.string()}).finish();
}

std::vector<std::string> commandOf(std::filesystem::path const& folder,
                                   std::vector<std::string> const& server) {
    std::filesystem::create_directory(folder / "disk");
    ::mkfifo((folder / "ready").c_str(), 0600);
    std::vector<std::string> command{"nbdfuse", "-P", "ready", "disk"};
    command.insert(command.end(), server.begin(), server.end());
    return command;
}

Outcome mountLoop(std::filesystem::path const& folder) {
    std::filesystem::create_directory(folder / "files");
    return RunningProgram(folder, {"mount", "-o", "loop", "disk/nbd", "files"}).finish();
}

} // namespace

DiskAsFile::DiskAsFile(std::filesystem::path const& folder, std::vector<std::string> const& server)
    : m_folder(folder), m_program(folder, commandOf(folder, server)), m_isThere(waitUntilThere()) {}

DiskAsFile::~DiskAsFile() {
    if (m_isThere)
        unmount(m_folder / "disk");
}

void DiskAsFile::finish() {
    m_isThere = false;
    EXPECT_EQ(unmount(m_folder / "disk").err, "");
    EXPECT_EQ(m_program.finish().err, "");
}

/// nbdfuse writes its process number once the file is there.
bool DiskAsFile::waitUntilThere() const {
    int const ready = ::open((m_folder / "ready").c_str(), O_RDONLY | O_NONBLOCK);
    int const process = test_support::openProcess(m_program.id());
    pollfd events[] = {{ready, POLLIN, 0}, {process, POLLIN, 0}};
    ::poll(events, 2, -1);
    ::close(ready);
    ::close(process);
    return (events[0].revents & POLLIN) != 0;
}

MountedFiles::MountedFiles(std::filesystem::path const& folder)
    : m_mountPoint(folder / "files"), m_mounted(mountLoop(folder)) {}

MountedFiles::~MountedFiles() {
    if (isThere())
        unmount(m_mountPoint);
}

std::string findMountObstacle(std::filesystem::path const& folder) {
    std::filesystem::create_directory(folder);
    if (::access("/dev/fuse", R_OK | W_OK) != 0)
        return "/dev/fuse is not usable here, so nbdfuse cannot show a disk as a file.";
    Outcome const made =
        RunningProgram(folder, {"mke2fs", "-q", "-F", "-t", "ext4", "image", "8M"}).finish();
    if (made.status != 0)
        return "mke2fs cannot make a file system here: " + made.err;
    DiskAsFile disk(folder, {"--command", "nbdkit", "-s", "file", (folder / "image").string()});
    if (!disk.isThere())
        return "nbdfuse cannot show a disk as a file here: " + disk.explain();
    MountedFiles const files(folder);
    return files.isThere() ? "" : "A file cannot be mounted here: " + files.explain();
}

} // namespace nbdkit
