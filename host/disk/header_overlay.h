#pragma once

#include "yx/file_system.h"

namespace kelm::host {

/// A file system that shows main files with the header that they have lost. A disk in one file
/// begins with it, and without it nobody finds the descriptor behind it. Where the first sector is
/// no header, but a descriptor stands in the next one, streams for reading show in its place what
/// `findHeader` finds. All else passes through. The files are not changed.
class HeaderOverlay : public yx::CBase, public virtual yx::IFileSystem {
public:
    /// Over `fileSystem`.
    explicit HeaderOverlay(yx::IFileSystem* fileSystem) : m_fileSystem(fileSystem) {}

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* options) override;
    bool fileExists(yx::CURI const& uri) override { return m_fileSystem->fileExists(uri); }
    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override {
        m_fileSystem->deleteFile(uri, ignoreMissing);
    }

private:
    yx::P<yx::IFileSystem> m_fileSystem;
};

} // namespace kelm::host
