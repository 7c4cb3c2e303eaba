#pragma once

#include <string>

#include "host/system/cancel.h"
#include "host/system/file_descriptor.h"

namespace kelm::tool {

/// A disk that is mounted on a folder: what runs for it, and how that ends. It is known by a folder
/// below $XDG_RUNTIME_DIR, or /run, which has
///
///     folder, disk   the names, for people
///     bare           which folder it is while nothing is mounted on it
///     mounted        which one the mounted one is
///     image/         where nbdfuse shows the disk, as "nbd"
///     ready          a pipe by which nbdfuse says that it does
///     alive          locked as long as a server runs, since they inherit its lock
///     log            what they have said
///
/// It is gone with the last of it, and made anew by nobody while it is there.
class MountRecord {
public:
    /// Makes the record of a folder, an absolute path without links. One that is there is
    /// `yx::CIOError` `AlreadyExists` "A disk is mounted on the folder, or a command that was killed
    /// has left something. Use kelm umount first." with "path".
    static MountRecord make(std::string const& folder, std::string const& disk);

    /// That of a folder with a disk on it. None is `NotFound` "No disk is mounted on the folder by
    /// kelm." with "path", and where the record would be.
    static MountRecord find(std::string const& folder);

    std::string const& getFolder() const { return m_folder; }
    std::string readDisk() const { return read("disk"); }
    std::string readLog() const { return read("log"); }

    /// A file or folder of the record.
    std::string pathOf(std::string const& name) const { return m_place + "/" + name; }

    /// The file as which the disk is seen.
    std::string getImage() const { return pathOf("image/nbd"); }

    /// A lock that is held as long as somebody has the descriptor open.
    host::FileDescriptor lockAlive() const;

    /// Remembers what is mounted on the folder now.
    void rememberMounted() const;

    /// Takes down all that there is, waits until the servers have ended, so that the disk is free,
    /// and removes the record. What has gone already is no error. A failure leaves the rest and the
    /// record, so that it can be tried again.
    ///
    /// A folder that is in use is `CLockFileError` "The folder is in use."; one on which something
    /// else is mounted is `NotAllowed` "Something else is mounted on the folder."; each with "path".
    /// `cancel`, which may be null, ends waiting.
    void takeDown(host::CancelFlag const* cancel) const;

private:
    MountRecord(std::string const& folder, std::string const& place)
        : m_folder(folder), m_place(place) {}

    std::string read(std::string const& name) const;
    void write(std::string const& name, std::string const& text) const;
    void unmountFolder() const;
    void unmountImage(host::CancelFlag const* cancel) const;
    void waitForServers(host::CancelFlag const* cancel) const;
    void remove() const;

    std::string m_folder;
    std::string m_place;
};

} // namespace kelm::tool
