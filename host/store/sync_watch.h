#pragma once

#include <memory>

#include "host/store/file_moving.h"

namespace kelm::host {

/// The files of one disk, with the memory that one of them could not be synced.
///
/// After a failed sync the operating system may mark what it could not write as clean, so that a
/// sync through another stream says nothing of the loss. Here the first failure is final for all
/// streams: none that has written syncs again. Do not share an object between disks, since the
/// failure of one would end the others.
class SyncWatch : public yx::CBase, public virtual yx::IFileSystem, public virtual IFileMover {
public:
    /// Watches what is opened through it in `fileSystem`.
    explicit SyncWatch(yx::IFileSystem* fileSystem);

    /// Throws the error of the first sync that failed, if one has.
    void verifyNoneFailed() const;

    /// Streams opened for writing are watched. Their `flush` throws the error of the first failure
    /// again, without trying, where they have written anything since they were last synced. A flush
    /// with nothing written since the last one asks for nothing.
    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* reserved) override;

    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;
    void moveFile(yx::CURI const& from, yx::CURI const& to) override;

    /// The error that was met first; shared by all streams.
    class Memory;

private:
    yx::P<yx::IFileSystem> m_fileSystem;
    std::shared_ptr<Memory> m_memory;
};

} // namespace kelm::host
