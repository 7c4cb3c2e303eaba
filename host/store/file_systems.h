#pragma once

#include "host/store/file_moving.h"

namespace kelm::host {

/// The files of all stores, each by the scheme of its URI: what programs open disks with. Files of
/// the operating system go to the file system that is given, so that a program can choose how it
/// flushes; any other scheme goes to `storeOf`, with its errors.
class FileSystems : public yx::CBase, public virtual yx::IFileSystem, public virtual IFileMover {
public:
    /// Files of the operating system are those of a `yx::CNativeFileSystem`.
    FileSystems();

    /// `local` opens `file:` URIs and must not be null.
    explicit FileSystems(yx::P<yx::IFileSystem> local);

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override;
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override;
    void moveFile(yx::CURI const& from, yx::CURI const& to) override;

private:
    yx::IFileSystem& find(yx::CURI const& uri) const;

    yx::P<yx::IFileSystem> m_local;
};

} // namespace kelm::host
