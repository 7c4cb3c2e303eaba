#include "host/backups/disk_claims.h"

#include "kelm/kelm.h"

namespace kelm::host {

void DiskClaims::add(DiskParts const& disk) {
    addName(disk.getMainFile());
    for (yx::CURI const& file : disk.listPresentFiles(m_fileSystem.get()))
        addFile(file);
}

void DiskClaims::addName(yx::CURI const& mainFile) {
    m_lockFiles.push_back(yx::makeObject<yx::CLockFile>(m_fileSystem.get(),
                                                        CVMDKDisk::getLockFileURI(mainFile),
                                                        yx::CLockFile::Exclusive, false, true));
}

void DiskClaims::addFile(yx::CURI const& file) {
    if (m_fileSystem->fileExists(file))
        m_locks.take(file, FileLock::Type::Exclusive);
}

} // namespace kelm::host
