#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "tests/support/running_program.h"

namespace nbdkit {

/// nbdfuse, which shows a server's disk as the file "disk/nbd" in a folder.
class DiskAsFile {
public:
    /// `server` are the words that tell nbdfuse of the server: its URI, or a command.
    DiskAsFile(std::filesystem::path const& folder, std::vector<std::string> const& server);
    DiskAsFile(DiskAsFile const&) = delete;
    DiskAsFile& operator=(DiskAsFile const&) = delete;
    ~DiskAsFile();

    bool isThere() const { return m_isThere; }

    /// Takes the file away. All that was written to it has then been sent to the server.
    void finish();

    /// Why the file is not there.
    std::string explain() { return m_program.finish().err; }

private:
    bool waitUntilThere() const;

    std::filesystem::path m_folder;
    test_support::RunningProgram m_program;
    bool m_isThere;
};

/// The file system on that disk, mounted on the folder "files" beside "disk".
class MountedFiles {
public:
    explicit MountedFiles(std::filesystem::path const& folder);
    MountedFiles(MountedFiles const&) = delete;
    MountedFiles& operator=(MountedFiles const&) = delete;
    ~MountedFiles();

    bool isThere() const { return m_mounted.status == 0; }

    /// Why it is not there.
    std::string const& explain() const { return m_mounted.err; }

private:
    std::filesystem::path m_mountPoint;
    test_support::Outcome m_mounted;
};

/// Why this machine cannot mount what a server of nbdkit has; empty if it can. Tries it in a folder,
/// which is made, with nothing of ours: what fails there is no fault of the plugin or of kelm.
std::string findMountObstacle(std::filesystem::path const& folder);

} // namespace nbdkit
