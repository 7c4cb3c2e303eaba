#pragma once

#include "host/system/work_options.h"
#include "yx/file_system.h"

namespace kelm::host {

/// What copying the files of a disk takes, and how far it is. Sizes are those of what the files
/// take on their file system, holes excluded.
class CopiedFiles {
public:
    /// Nothing yet. `work` says who is told how far it is.
    CopiedFiles(yx::IFileSystem* fileSystem, WorkOptions const& work)
        : m_fileSystem(fileSystem), m_work(work) {}

    /// A file that is to be copied, if it is there. Where `to` is there, an earlier attempt has made it,
    /// and it needs no more room.
    void plan(yx::CURI const& from, yx::CURI const& to);

    /// Throws `CIOError` `NoSpace` "There is not enough room for the copy." with "uri" (`folder`),
    /// "neededBytes" and "freeBytes" if the file system of `folder` has less room. It is believed to
    /// have enough if it does not tell, or may share the space of the files.
    void verifyRoom(yx::CURI const& folder) const;

    /// Reports that a file has been copied.
    void addDone(yx::CURI const& from);

    /// Reports that all is done.
    void finish() const;

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    WorkOptions m_work;
    yx::CURI m_sample;
    __int64 m_totalBytes = 0;
    __int64 m_neededBytes = 0;
    __int64 m_doneBytes = 0;
};

/// Whether a name of any kind is taken, by a link that leads nowhere too.
bool isNameTaken(yx::CURI const& file);

/// Whether files of one folder can have second names in the other, as far as the devices tell.
bool areOnOneDevice(yx::CURI const& folder, yx::CURI const& other);

} // namespace kelm::host
