#pragma once

#include <map>
#include <vector>

#include "host/disk/disk_extent.h"
#include "kelm/format/descriptor.h"
#include "yx/file_system.h"

namespace kelm::host {

/// The extent files, made on demand, that a power cut has left unfinished. They hold no data, and
/// the next writer moves them aside (`isUnfinishedExtent`); to readers they are not there.
class UnfinishedExtents {
public:
    /// A disk that is only read, as its descriptor describes it. Does nothing for one whose files
    /// are all made at once. `mainFile` and the names are normalised.
    void addDisk(CVMDKDescriptor const& descriptor, yx::CURI const& mainFile,
                 std::vector<DiskExtent> const& extents);

    /// Whether a file is such a one, of a disk that was added. It is looked at once, which takes at
    /// most 32 MiB of memory: one of an extent above 256 GiB is never taken for unfinished. Throws
    /// what opening and reading fail with, and looks again the next time.
    bool contains(yx::IFileSystem& files, yx::CURI const& uri);

private:
    struct Candidate {
        yx::CURI mainFile;

        /// Without its grains, whose size and form are those of the first extent.
        DiskExtent extent;
        yx::CURI firstExtent;
        yx::TBuffer<unsigned char> keyHash;
    };

    static bool isUnfinished(yx::IFileSystem& files, Candidate const& candidate);

    /// By the names of the files; they go once they have been looked at.
    std::map<yx::CURI, Candidate> m_candidates;
    std::map<yx::CURI, bool> m_known;
};

} // namespace kelm::host
