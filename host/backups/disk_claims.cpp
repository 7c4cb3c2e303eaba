#include "host/backups/disk_claims.h"

#include "host/disk/disk_opening.h"
#include "kelm/kelm.h"

namespace kelm::host {

void DiskClaims::add(DiskParts const& disk) {
    addName(disk.getMainFile());
    for (yx::CURI const& file : disk.listPresentFiles(m_fileSystem.get()))
        addFile(file);
}

void DiskClaims::addName(yx::CURI const& mainFile) {
    if (m_type == FileLock::Type::Shared) {
        if (yx::P<yx::CLockFile> lock = takeReaderLock(m_fileSystem.get(), mainFile))
            m_lockFiles.push_back(std::move(lock));
        return;
    }
    m_lockFiles.push_back(yx::makeObject<yx::CLockFile>(m_fileSystem.get(),
                                                        CVMDKDisk::getLockFileURI(mainFile),
                                                        yx::CLockFile::Exclusive, false, true));
}

void DiskClaims::addFile(yx::CURI const& file) {
    if (m_fileSystem->fileExists(file))
        m_locks.take(file, m_type);
}

} // namespace kelm::host
