#include "host/backups/disk_drop.h"

#include <cassert>

#include "host/backups/descriptor_mending.h"
#include "host/backups/disk_deletion.h"
#include "host/backups/disk_relink.h"
#include "host/disk/parent_chain.h"
#include "host/store/file_names.h"
#include "host/store/folder_access.h"
#include "host/transfer/kept_digests.h"
#include "host/transfer/whole_reading.h"

namespace kelm::host {

DiskDrop::DiskDrop(yx::IFileSystem* fileSystem, DurableFiles& steps, yx::CURI const& mainFile,
                   DiskDropOptions const& options)
    : m_fileSystem(fileSystem),
      m_steps(steps),
      m_mainFile(mainFile.toNormalized()),
      m_options(options) {}

DiskDropResult DiskDrop::run() {
    DiskDropResult result;
    mendDescriptors(m_fileSystem.get(), m_steps, m_options.lookIn);
    if (m_fileSystem->fileExists(m_mainFile)) {
        DiskRelations const relations(m_fileSystem.get(), m_options.lookIn);
        result.children = relations.findChildren(m_mainFile);
        if (!result.children.empty()) {
            verifyMayGo(relations);
            openChain();
        }
        ParentsRoom room;
        for (yx::CURI const& child : result.children)
            planChild(child, room);
        room.verify();
        for (yx::CURI const& child : result.children) {
            fillChild(child);
            relinkDisk(m_fileSystem.get(), m_steps, child, *m_disk, m_parent.get());
        }
        m_disk.reset();
        m_parent.reset();
    }
    DiskDeletionOptions options;
    options.lookIn = m_options.lookIn;
    options.trust = m_options.trust;
    result.files = DiskDeletion(m_fileSystem.get(), m_steps, m_mainFile, options).run();
    return result;
}

/// What the deletion would refuse in the end.
void DiskDrop::verifyMayGo(DiskRelations const& relations) const {
    if (DiskNote::tryRead(m_fileSystem.get(), m_mainFile, DiskNote::Work::Moving)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The disk is being renamed.",
                           yx::CProps().add("uri", m_mainFile.toString(true)), nullptr);
    }
    verifyMayWriteInFolderOf(m_mainFile);
    DiskParts const disk = readDiskParts(m_fileSystem.get(), m_mainFile);
    verifyOwnsFiles(m_fileSystem.get(), disk, m_options.trust);
    relations.verifyHasFilesAlone(disk);
}

std::unique_ptr<SafeDisk> DiskDrop::openDisk(yx::CURI const& mainFile,
                                             yx::IIOStream::Access access) const {
    return std::make_unique<SafeDisk>(m_fileSystem.get(), mainFile, access, m_options.password, -1,
                                      CVMDKGrainTableCache::kDefaultLimit, m_options.trust);
}

void DiskDrop::openChain() {
    m_disk = openDisk(m_mainFile, yx::IIOStream::ReadOnly);
    if (!m_disk->hasParent())
        return;
    CVMDKDisk& disk = m_disk->getDisk();
    m_parent = openDisk(resolveName(disk.getParentDiskMainURI()), yx::IIOStream::ReadOnly);
    verifyIsContentOfParent(m_fileSystem.get(), m_mainFile, *m_parent);
    openParents(m_fileSystem.get(), *m_parent, m_options.password);
}

ParentSwap DiskDrop::swapFor(SafeDisk& child) const {
    ParentSwap::Parents parents;
    parents.oldParent = m_disk.get();
    parents.left = {m_disk.get()};
    parents.newParent = m_parent.get();
    return ParentSwap(child, parents);
}

void DiskDrop::planChild(yx::CURI const& child, ParentsRoom& room) const {
    verifyIsContentOfParent(m_fileSystem.get(), child, *m_disk);
    verifyMayWriteInFolderOf(child);
    // Puts right what a power cut has left, and finds out whether somebody uses it.
    std::unique_ptr<SafeDisk> const disk = openToChange(child);
    beginWholeReading(*disk, m_options.work.cancel);
    ParentSwap swap = swapFor(*disk);
    GrainSet const grains = swap.findByTables(m_options.work.cancel);
    swap.verifyCanHold(grains);
    room.add(*disk, grains, m_options.work.cancel);
}

std::unique_ptr<SafeDisk> DiskDrop::openToChange(yx::CURI const& child) const {
    return openToFill(m_fileSystem.get(), child, m_options.password, m_options.trust,
                      m_options.work.cancel);
}

void DiskDrop::fillChild(yx::CURI const& child) const {
    std::unique_ptr<SafeDisk> const disk = openToChange(child);
    ParentSwap swap = swapFor(*disk);
    GrainSet const heldBefore = m_options.verify ? findOwnGrains(*disk, m_options.work.cancel)
                                                 : GrainSet(disk->getGrainCount());
    GrainSet const grains = swap.findByTables(m_options.work.cancel);
    if (!grains.isEmpty())
        holdGrainsWithDigests(m_fileSystem.get(), *disk, m_options.password, grains,
                              m_options.work);
    if (m_options.verify)
        swap.verifyReadsAsBefore(heldBefore, m_options.work);
}

} // namespace kelm::host
