#include "host/backups/disk_parts.h"

#include <algorithm>
#include <set>

#include "host/disk/digest_file_name.h"
#include "host/disk/disk_files.h"
#include "host/disk/disk_layout.h"
#include "host/disk/disk_reach.h"
#include "host/store/file_names.h"
#include "host/store/folder_files.h"
#include "host/store/stores.h"
#include "kelm/kelm.h"

namespace kelm::host {

namespace {

/// Links resolved, if the file is there.
yx::CURI withLinksResolved(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    if (file.isEmpty() || !fileSystem->fileExists(file))
        return file;
    return resolveName(file);
}

bool isLinkToFile(yx::CURI const& file) {
    IStore* const store = findStore(file);
    std::optional<FileStatus> const status = store ? store->findStatus(file, false) : std::nullopt;
    return status && status->kind == FileKind::Link;
}

bool isExtentOfDisk(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    yx::P<yx::IIOStream> const stream =
        openVMDKFileStream(fileSystem, file, yx::IIOStream::ReadOnly);
    if (stream->getLength() == 0)
        return true;
    try {
        CVMDKSparseExtentHeader header;
        yx::CDataInStream in(stream.get());
        header.load(in);
        return header.getDescriptorOffsetSectors() == 0;
    } catch (yx::CIOError const& error) {
        // What is shorter than a header, or begins as something else.
        if (error.getIOCode() == yx::CIOError::IOFailure)
            throw;
        return false;
    }
}

} // namespace

std::vector<yx::CURI> DiskParts::listPresentFiles(yx::IFileSystem* fileSystem) const {
    std::vector<yx::CURI> files{getMainFile()};
    for (yx::CURI const& file : extentFiles) {
        if (fileSystem->fileExists(file))
            files.push_back(file);
    }
    if (!digestFile.isEmpty())
        files.push_back(digestFile);
    return files;
}

DiskParts readDiskParts(yx::IFileSystem* fileSystem, yx::CURI const& mainFile) {
    DiskParts parts;
    parts.descriptor = readDescriptorFile(fileSystem, mainFile);
    CVMDKDescriptor const descriptor = parts.descriptor.parse();
    std::set<yx::CURI> seen{parts.getMainFile()};
    for (DiskExtent const& extent :
         listDescribedExtents(descriptor, parts.getMainFile(), kSectorSizeBytes, false)) {
        yx::CURI const file = extent.uri.toNormalized();
        if (seen.insert(file).second)
            parts.extentFiles.push_back(file);
    }
    yx::CURI const digestFile = digestFileOf(parts.getMainFile()).toNormalized();
    if (isDigestFile(fileSystem, digestFile))
        parts.digestFile = digestFile;
    parts.parentFile =
        withLinksResolved(fileSystem, findParentFile(descriptor, parts.getMainFile()));
    return parts;
}

void verifyOwnsFiles(yx::IFileSystem* fileSystem, DiskParts const& disk, DiskTrust const& trust) {
    DiskReach(disk.getMainFile(), trust).verifyExtents(disk.descriptor.parse(), *fileSystem);
    for (yx::CURI const& file : disk.extentFiles)
        verifyIsBareExtent(fileSystem, file);
}

void verifyIsBareExtent(yx::IFileSystem* fileSystem, yx::CURI const& file) {
    if (!fileSystem->fileExists(file) || (!isLinkToFile(file) && isExtentOfDisk(fileSystem, file)))
        return;
    throw yx::CIOError(yx::CIOError::NotAllowed,
                       "The disk names a file that is no extent of a disk.",
                       yx::CProps().add("uri", file.toString(true)), nullptr);
}

DiskRelations::DiskRelations(yx::IFileSystem* fileSystem, std::vector<yx::CURI> const& folders) {
    for (yx::CURI const& folder : folders) {
        for (yx::CURI const& file : listFilesBelow(folder)) {
            if (m_disks.contains(file) || isFileOfChange(file) || !isDiskMainFile(file))
                continue;
            try {
                m_disks.emplace(file, readDiskParts(fileSystem, file));
            } catch (yx::CError const& error) {
                error.nop();
            }
        }
    }
}

std::vector<yx::CURI> DiskRelations::findChildren(yx::CURI const& mainFile) const {
    std::vector<yx::CURI> children;
    for (auto const& [file, disk] : m_disks) {
        if (disk.parentFile == mainFile && file != mainFile)
            children.push_back(file);
    }
    return children;
}

std::vector<yx::CURI> DiskRelations::findDescendants(yx::CURI const& mainFile) const {
    std::vector<yx::CURI> found{mainFile};
    // The list grows while it is walked. Disks can be their own ancestors.
    for (std::size_t i = 0; i < found.size(); ++i) {
        for (yx::CURI const& child : findChildren(found[i])) {
            if (std::find(found.begin(), found.end(), child) == found.end())
                found.push_back(child);
        }
    }
    found.erase(found.begin());
    return found;
}

void DiskRelations::verifyHasFilesAlone(DiskParts const& disk) const {
    for (auto const& [file, other] : m_disks) {
        if (file == disk.getMainFile())
            continue;
        for (yx::CURI const& extent : other.extentFiles) {
            if (extent != disk.getMainFile() &&
                std::find(disk.extentFiles.begin(), disk.extentFiles.end(), extent) ==
                    disk.extentFiles.end())
                continue;
            throw yx::CIOError(
                yx::CIOError::NotAllowed, "The file belongs to another disk too.",
                yx::CProps().add("uri", extent.toString(true)).add("disk", file.toString(true)),
                nullptr);
        }
    }
}

bool DiskRelations::haveFile(yx::CURI const& file) const {
    return m_disks.contains(file) ||
           std::any_of(m_disks.begin(), m_disks.end(), [&](auto const& entry) {
               std::vector<yx::CURI> const& extents = entry.second.extentFiles;
               return std::find(extents.begin(), extents.end(), file) != extents.end();
           });
}

} // namespace kelm::host
