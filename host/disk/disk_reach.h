#pragma once

#include <optional>
#include <string>
#include <vector>

#include "host/disk/disk_trust.h"
#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm::host {

/// What the descriptor of a disk may lead to. Extents lie in the folder of the disk's main file, in
/// one below it, or in an allowed one, and are regular files; any other name could make a program
/// read, write or make a file of its user that has nothing to do with the disk.
///
/// For `file:` URIs, links are followed first; the folder of a main file that is a link is both the
/// link's and the file's. For other URIs, folders are compared by their texts.
class DiskReach {
public:
    /// `mainFile` is normalised.
    DiskReach(yx::CURI const& mainFile, DiskTrust const& trust);

    /// Refuses an extent file that is not to be reached. A file that does not exist is judged by
    /// its folder, and one whose folder does not exist either is nothing that could be reached.
    ///
    /// Throws `yx::CIOError` `NotAllowed` with "uri" and "folder": "The disk names a file outside
    /// of its folder. If you trust the disk, allow that file's folder (--allow-path,
    /// allow-path=)."; and with "uri": "An extent of the disk is no regular file.". A name that
    /// cannot be resolved for another reason is what `throwSystemError` makes of it.
    void verifyExtent(yx::CURI const& extent) const;

    /// Refuses a main file, of a parent, that is no regular file: opening one may wait for ever.
    /// `NotAllowed` with "uri": "The parent disk is no regular file."
    static void verifyParent(yx::CURI const& mainFile);

    /// The same as `verifyExtent` for all extents of a descriptor, and that it keeps to
    /// `kMaxExtents` and `kMaxBytesWithoutFile`: `NotAllowed` with "uri" of the main file, the
    /// number, and the way out. Asks `fileSystem` which files are there, if all of them together
    /// would be too large. The main file, which is open, is not looked at. Returns the normalised
    /// names.
    std::vector<yx::CURI> verifyExtents(CVMDKDescriptor const& descriptor,
                                        yx::IFileSystem& fileSystem) const;

    /// Refuses grains above `kMaxGrainSizeBytes` in an extent: `NotAllowed` with "uri", the number,
    /// and the way out.
    void verifyGrainSize(yx::CURI const& extent, unsigned long long grainSizeSectors) const;

private:
    class Folders;

    /// What a main file's name and the allowed folders lead to, links followed.
    struct RealPaths {
        std::vector<std::string> folders;
        std::string mainPath;
    };

    void verifyExtent(yx::CURI const& extent, Folders& folders) const;
    bool isAllowed(yx::CURI const& extent, Folders& folders) const;
    bool isAllowedInStore(yx::CURI const& extent) const;
    bool isInAllowedFolder(std::string const& realPath) const;
    RealPaths const& resolve() const;

    yx::CURI m_mainFile;
    DiskTrust m_trust;

    /// Of a `file:` URI. Absent until it is needed: a disk in one file needs none.
    mutable std::optional<RealPaths> m_realPaths;
};

} // namespace kelm::host
