#include "host/backups/disk_deletion.h"

#include <cassert>

#include "host/backups/left_locks.h"
#include "host/disk/digest_file_name.h"
#include "host/store/file_status.h"
#include "host/store/folder_access.h"

namespace kelm::host {

DiskHasChildrenError::DiskHasChildrenError(yx::CURI const& mainFile,
                                           std::vector<yx::CURI> const& children)
    : CError("The disk has children that need it.", "", -1,
             yx::CProps()
                 .add("uri", mainFile.toString(true))
                 .add("children", yx::toString(static_cast<__int64>(children.size())))
                 .add("child", children.front().toString(true)),
             nullptr) {}

std::shared_ptr<yx::CError const> DiskHasChildrenError::clone() const {
    return std::make_shared<DiskHasChildrenError>(*this);
}

DiskDeletion::DiskDeletion(yx::IFileSystem* fileSystem, DurableFiles& steps,
                           yx::CURI const& mainFile, DiskDeletionOptions const& options)
    : m_fileSystem(fileSystem),
      m_steps(steps),
      m_mainFile(mainFile.toNormalized()),
      m_options(options),
      m_claims(fileSystem) {}

std::vector<yx::CURI> DiskDeletion::run() {
    plan();
    verifyMayWriteInFolderOf(m_mainFile);
    bool const needsNote = m_files.size() > 1;
    if (needsNote && m_fileSystem->fileExists(m_mainFile))
        writeNote();
    for (yx::CURI const& file : m_files)
        m_steps.remove(file);
    m_steps.remove(DiskNote::nameFor(m_mainFile, DiskNote::Work::Deleting));
    return m_files;
}

void DiskDeletion::plan() {
    yx::CProps const props = yx::CProps().add("uri", m_mainFile.toString(true));
    if (DiskNote::tryRead(m_fileSystem.get(), m_mainFile, DiskNote::Work::Moving)) {
        throw yx::CIOError(yx::CIOError::NotAllowed, "The disk is being renamed.", props, nullptr);
    }
    std::optional<DiskNote> const note =
        DiskNote::tryRead(m_fileSystem.get(), m_mainFile, DiskNote::Work::Deleting);
    bool const isThere = m_fileSystem->fileExists(m_mainFile);
    if (!isThere && !note) {
        removeLeftLock(m_fileSystem.get(), m_mainFile);
        throw yx::CIOError(yx::CIOError::NotFound, "The disk does not exist.", props, nullptr);
    }
    std::vector<yx::CURI> disks;
    DiskRelations const relations(m_fileSystem.get(), m_options.lookIn);
    if (isThere) {
        disks = relations.findDescendants(m_mainFile);
        if (!disks.empty() && !m_options.withChildren)
            throw DiskHasChildrenError(m_mainFile, relations.findChildren(m_mainFile));
        disks.insert(disks.begin(), m_mainFile);
    }
    for (yx::CURI const& disk : disks)
        m_planned.insert(disk);
    if (!isThere)
        m_claims.addName(m_mainFile);
    for (auto disk = disks.rbegin(); disk != disks.rend(); ++disk)
        planDisk(relations, *disk);
    if (note)
        planLeftFiles(relations, *note);
}

void DiskDeletion::planDisk(DiskRelations const& relations, yx::CURI const& mainFile) {
    m_claims.add(readDiskParts(m_fileSystem.get(), mainFile));
    // Only now nobody changes it any more.
    DiskParts const disk = readDiskParts(m_fileSystem.get(), mainFile);
    verifyOwnsFiles(m_fileSystem.get(), disk, m_options.trust);
    relations.verifyHasFilesAlone(disk);
    m_files.push_back(mainFile);
    for (yx::CURI const& file : disk.extentFiles)
        planFile(file);
    if (!disk.digestFile.isEmpty())
        planFile(disk.digestFile);
}

/// What an earlier call has left of disks whose main files are gone.
void DiskDeletion::planLeftFiles(DiskRelations const& relations, DiskNote const& note) {
    for (auto const& [file, ignored] : note.files) {
        assert(ignored.isEmpty());
        // A disk that was made since may have the name.
        if (m_planned.contains(file) || !m_fileSystem->fileExists(file) || relations.haveFile(file))
            continue;
        m_claims.addFile(file);
        if (!isDigestFile(m_fileSystem.get(), file))
            verifyIsBareExtent(m_fileSystem.get(), file);
        planFile(file);
    }
}

void DiskDeletion::planFile(yx::CURI const& file) {
    if (m_fileSystem->fileExists(file) && m_planned.insert(file).second)
        m_files.push_back(file);
}

void DiskDeletion::writeNote() {
    DiskNote note;
    note.work = DiskNote::Work::Deleting;
    note.mainIdentity = identifyFile(m_mainFile).value_or(FileIdentity());
    note.files.emplace_back(m_mainFile, yx::CURI());
    for (yx::CURI const& file : m_files) {
        if (file != m_mainFile)
            note.files.emplace_back(file, yx::CURI());
    }
    note.write(m_steps);
}

} // namespace kelm::host
