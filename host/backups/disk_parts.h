#pragma once

#include <map>
#include <vector>

#include "host/backups/descriptor_file.h"
#include "host/disk/disk_trust.h"

namespace kelm::host {

/// A disk as its descriptor describes it, for who handles its files and does not read it.
struct DiskParts {
    /// What the disk says of itself.
    DescriptorFile descriptor;

    /// The files of extents, the main file aside, each once. Those that are made on demand may be
    /// missing.
    std::vector<yx::CURI> extentFiles;

    /// The file with its digests; empty if there is none.
    yx::CURI digestFile;

    /// Empty for a disk without a parent. Links resolved, if it is there.
    yx::CURI parentFile;

    /// The main file.
    yx::CURI const& getMainFile() const { return descriptor.mainFile; }

    /// The main file, the extent files that are there, and the digest file.
    std::vector<yx::CURI> listPresentFiles(yx::IFileSystem* fileSystem) const;

    /// Whether all of the disk lies in one file.
    bool isInOneFile() const { return descriptor.isEmbedded && extentFiles.empty(); }
};

/// Reads what a descriptor says. Nothing is looked at but the main file, and whether there are
/// digests. Errors are those of
/// `readDescriptorFile`.
DiskParts readDiskParts(yx::IFileSystem* fileSystem, yx::CURI const& mainFile);

/// Refuses a disk whose files must not be handled as its own, as `DiskReach` does for those outside
/// of its folder, and `verifyIsBareExtent`.
void verifyOwnsFiles(yx::IFileSystem* fileSystem, DiskParts const& disk, DiskTrust const& trust);

/// Refuses a file that is there and is no extent without a descriptor: one of other content, a disk
/// of its own, or a symbolic link. An empty file passes, as one whose making was ended.
/// `yx::CIOError` `NotAllowed` "The disk names a file that is no extent of a disk." with "uri".
void verifyIsBareExtent(yx::IFileSystem* fileSystem, yx::CURI const& file);

/// The disks below some folders whose descriptors can be read, and what binds them to others. A
/// disk that cannot be read is none here: whose child it is nobody knows.
class DiskRelations {
public:
    /// Errors are those of `listFilesBelow`.
    DiskRelations(yx::IFileSystem* fileSystem, std::vector<yx::CURI> const& folders);

    /// The main files of the children of the disk, in the order of their names.
    std::vector<yx::CURI> findChildren(yx::CURI const& mainFile) const;

    /// The children, theirs, and so on, each behind its parent; the disk itself is not among them.
    std::vector<yx::CURI> findDescendants(yx::CURI const& mainFile) const;

    /// Refuses a disk if another one has one of its files too: `yx::CIOError` `NotAllowed` "The
    /// file belongs to another disk too." with "uri" and "disk".
    void verifyHasFilesAlone(DiskParts const& disk) const;

    /// Whether one of the disks has a file, as its main file or as one of its extents.
    bool haveFile(yx::CURI const& file) const;

private:
    std::map<yx::CURI, DiskParts> m_disks;
};

} // namespace kelm::host
