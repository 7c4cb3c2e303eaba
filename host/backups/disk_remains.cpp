#include "host/backups/disk_remains.h"

#include "host/backups/disk_claims.h"
#include "host/backups/disk_deletion.h"
#include "host/backups/disk_note.h"
#include "host/backups/left_locks.h"
#include "host/disk/digest_file_name.h"
#include "host/disk/extent_names.h"
#include "host/disk/sealed_file_system.h"
#include "host/store/file_status.h"
#include "host/store/folder_access.h"
#include "host/store/stores.h"

namespace kelm::host {

namespace {

[[noreturn]] void refuse(yx::CIOError::Code code, yx::String const& message,
                         yx::CURI const& mainFile) {
    throw yx::CIOError(code, message, yx::CProps().add("uri", mainFile.toString(true)), nullptr);
}

/// The files in the disk's folder that a splitting of the disk would have made.
std::vector<yx::CURI> findExtentsByName(yx::CURI const& mainFile) {
    std::vector<yx::CURI> extents;
    yx::CURI const folder = mainFile.getParent();
    for (FolderEntry const& entry : storeOf(folder).listFolder(folder)) {
        std::optional<yx::String> const name = yx::String::tryFromUTF8(entry.name);
        if (!name || entry.kind != FileKind::File)
            continue;
        yx::CURI const file = (yx::CURI(folder) << *name).toNormalized();
        if (isExtentName(mainFile, file))
            extents.push_back(file);
    }
    return extents;
}

bool isBareExtent(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    try {
        verifyIsBareExtent(fileSystem, file);
        return true;
    } catch (yx::CIOError const& error) {
        if (error.getIOCode() != yx::CIOError::NotAllowed)
            throw;
        return false;
    }
}

/// What goes, the main file first: as long as it is there, so is the reason to look for the rest.
std::vector<yx::CURI> listRemains(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    std::vector<yx::CURI> files;
    if (fileSystem->fileExists(mainFile))
        files.push_back(mainFile);
    if (std::vector<yx::CURI> const extents = findExtentsByName(mainFile); !extents.empty()) {
        DiskRelations const relations(fileSystem, {mainFile.getParent()});
        for (yx::CURI const& file : extents) {
            if (!relations.haveFile(file) && isBareExtent(fileSystem, file))
                files.push_back(file);
        }
    }
    yx::CURI const digestFile = digestFileOf(mainFile).toNormalized();
    if (isDigestFile(fileSystem, digestFile))
        files.push_back(digestFile);
    return files;
}

void verifyIsNoDisk(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    if (findStatus(mainFile) && !isSealedFile(fileSystem, mainFile)) {
        refuse(yx::CIOError::NotAllowed, "The file is no remains of a disk that was being made.",
               mainFile);
    }
}

} // namespace

std::vector<yx::CURI> deleteDiskRemains(yx::IFileSystem* fileSystem, DurableFiles& steps,
                                        yx::CURI const& mainFile) {
    if (DiskNote::tryRead(fileSystem, mainFile, DiskNote::Work::Deleting)) {
        DiskDeletionOptions options;
        options.lookIn = {mainFile.getParent()};
        return DiskDeletion(fileSystem, steps, mainFile, options).run();
    }
    if (yx::String const note = DiskNote::describe(fileSystem, mainFile); !note.isEmpty())
        refuse(yx::CIOError::NotAllowed, note, mainFile);
    verifyIsNoDisk(fileSystem, mainFile);
    if (listRemains(fileSystem, mainFile).empty()) {
        removeLeftLock(fileSystem, mainFile);
        refuse(yx::CIOError::NotFound, "The disk does not exist.", mainFile);
    }
    verifyMayWriteInFolderOf(mainFile);
    DiskClaims claims(fileSystem);
    claims.addName(mainFile);
    claims.addFile(mainFile);
    // Only now nobody makes it any more.
    verifyIsNoDisk(fileSystem, mainFile);
    std::vector<yx::CURI> files = listRemains(fileSystem, mainFile);
    for (yx::CURI const& file : files)
        claims.addFile(file);
    for (yx::CURI const& file : files)
        steps.remove(file);
    return files;
}

} // namespace kelm::host
