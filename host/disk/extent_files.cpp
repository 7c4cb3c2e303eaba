#include "host/disk/extent_files.h"

#include <cassert>

#include "host/disk/extent_creation.h"
#include "host/disk/extent_recovery.h"
#include "yx/error.h"

namespace kelm::host {

ExtentFiles::ExtentFiles(yx::IFileSystem* fileSystem, yx::CURI const& mainFileURI,
                         DiskLayout const& layout, bool areMadeOnDemand,
                         yx::TBuffer<unsigned char> const& keyHash)
    : m_fileSystem(fileSystem),
      m_mainFileURI(mainFileURI),
      m_layout(layout),
      m_areMadeOnDemand(areMadeOnDemand),
      m_keyHash(keyHash) {
    for (std::size_t i = 0; i < layout.getExtents().size(); ++i)
        m_isThere.push_back(!mayBeMissing(i));
    assert(m_isThere.front());
}

void ExtentFiles::verifyExist() const {
    if (m_areMadeOnDemand)
        return;
    for (DiskExtent const& extent : m_layout.getExtents()) {
        if (!m_fileSystem->fileExists(extent.uri)) {
            throw yx::CIOError(yx::CIOError::NotFound, "An extent file of the disk is missing.",
                               yx::CProps().add("uri", extent.uri.toString(true)), nullptr);
        }
    }
}

__int64 ExtentFiles::findMissingEnd(__int64 positionBytes) const {
    if (!m_areMadeOnDemand)
        return positionBytes;
    std::size_t const index = m_layout.findExtent(positionBytes);
    DiskExtent const& extent = m_layout.getExtents()[index];
    bool const isMissing = extent.startBytes == positionBytes && mayBeMissing(index) &&
                           !m_isThere[index] && !m_fileSystem->fileExists(extent.uri);
    return isMissing ? extent.endBytes : positionBytes;
}

void ExtentFiles::recover() {
    std::vector<DiskExtent> const& extents = m_layout.getExtents();
    for (std::size_t i = 0; i < extents.size(); ++i) {
        if (mayBeMissing(i))
            moveAsideIfUnfinished(m_fileSystem.get(), m_mainFileURI, extents[i], m_keyHash);
        m_isThere[i] = m_fileSystem->fileExists(extents[i].uri);
        if (m_isThere[i])
            repairExtentFile(m_fileSystem.get(), extents[i]);
    }
}

void ExtentFiles::makeReached(__int64 positionBytes, __int64 bytes) {
    assert(m_isThere.size() == m_layout.getExtents().size());
    if (!m_areMadeOnDemand)
        return;
    std::vector<DiskExtent> const& extents = m_layout.getExtents();
    for (std::size_t i = m_layout.findExtent(positionBytes);
         i < extents.size() && extents[i].overlaps(positionBytes, bytes); ++i) {
        if (m_isThere[i])
            continue;
        make(extents[i]);
        m_isThere[i] = true;
    }
}

void ExtentFiles::make(DiskExtent const& extent) {
    bool isThere = m_fileSystem->fileExists(extent.uri);
    if (isThere) {
        moveAsideIfUnfinished(m_fileSystem.get(), m_mainFileURI, extent, m_keyHash);
        isThere = m_fileSystem->fileExists(extent.uri);
    }
    if (isThere)
        syncFile(m_fileSystem.get(), extent.uri);
    else
        createExtentFileDurably(m_fileSystem.get(), extent, m_keyHash);
}

} // namespace kelm::host
