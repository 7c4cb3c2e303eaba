#include "host/transfer/kept_digests.h"

#include "host/transfer/digest_making.h"
#include "host/transfer/held_grains.h"
#include "yx/log.h"

namespace kelm::host {

KeptDigests::KeptDigests(yx::IFileSystem* fileSystem, SafeDisk& disk, yx::String const& password)
    : m_fileSystem(fileSystem), m_disk(disk) {
    try {
        m_former = DiskDigests::open(fileSystem, disk);
    } catch (yx::CIOError const& error) {
        // They are no reason to refuse a disk that is sound.
        yx::logWarning(error, "Cannot read the digests of the disk, which has none from now on.",
                       "");
    }
    if (m_former.areUpToDate())
        m_parents = ChainDigests::openSome(fileSystem, disk, password);
}

void KeptDigests::finish(WorkOptions const& options) {
    if (!m_former.areUpToDate())
        return;
    DigestMaking digests(m_fileSystem.get(), m_disk);
    digests.keep(*m_former.file, m_parents.get());
    digests.finish(m_former.file->getHeader().imageSizeBytes, options);
}

void holdGrainsWithDigests(yx::IFileSystem* fileSystem, SafeDisk& disk, yx::String const& password,
                           GrainSet const& grains, WorkOptions const& options) {
    KeptDigests digests(fileSystem, disk, password);
    holdGrains(disk, grains, options);
    WorkOptions quiet = options;
    quiet.progress = {};
    digests.finish(quiet);
}

} // namespace kelm::host
