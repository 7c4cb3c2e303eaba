#include "host/disk/stored_view.h"

#include <cassert>

#include "yx/error.h"

namespace kelm::host {

namespace {

constexpr int kDefaultCompressionLevel = -1;

/// Shows all files but one, as a folder does that may only be read: the library then reads a disk
/// without its lock.
class WithoutLockFile : public yx::CBase, public virtual yx::IFileSystem {
public:
    WithoutLockFile(yx::IFileSystem* fileSystem, yx::CURI const& lockFile)
        : m_fileSystem(fileSystem), m_lockFile(lockFile.toNormalized()) {}

    yx::P<yx::IIOStream> openFile(yx::CURI const& uri, yx::IIOStream::Access access,
                                  unsigned int* reserved) override {
        assert(isLockFile(uri) || access == yx::IIOStream::ReadOnly ||
               uri.getExtension() == kLockFileExtension);
        if (isLockFile(uri)) {
            throw yx::CIOError(yx::CIOError::AccessDenied, "The lock is held already.",
                               yx::CProps().add("uri", uri.toString(true)), nullptr);
        }
        return m_fileSystem->openFile(uri, access, reserved);
    }

    bool fileExists(yx::CURI const& uri) override {
        return !isLockFile(uri) && m_fileSystem->fileExists(uri);
    }

    void deleteFile(yx::CURI const& uri, bool ignoreMissing) override {
        m_fileSystem->deleteFile(uri, ignoreMissing);
    }

private:
    bool isLockFile(yx::CURI const& uri) const { return uri.toNormalized() == m_lockFile; }

    yx::P<yx::IFileSystem> m_fileSystem;
    yx::CURI m_lockFile;
};

} // namespace

StoredView::StoredView(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                       yx::String const& password)
    : m_fileSystem(
          yx::makeObject<WithoutLockFile>(fileSystem, CVMDKDisk::getLockFileURI(mainFileURI))),
      m_mainFileURI(mainFileURI),
      m_password(password) {}

CVMDKDisk& StoredView::getDisk() {
    if (!m_disk) {
        m_disk =
            yx::makeObject<CVMDKDisk>(m_fileSystem.get(), m_mainFileURI, yx::IIOStream::ReadOnly,
                                      m_password.get(), kDefaultCompressionLevel, nullptr, nullptr);
    }
    assert(m_disk->getMainFileURI() == m_mainFileURI);
    return *m_disk;
}

} // namespace kelm::host
