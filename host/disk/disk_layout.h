#pragma once

#include <vector>

#include "host/disk/disk_extent.h"

namespace kelm {
class CVMDKDescriptor;
class CVMDKDisk;
} // namespace kelm

namespace kelm::host {

/// The extents of a disk in order, without gaps, as its descriptor names them. `mainFile` is where
/// the descriptor lies. A size below 0, or beyond what positions of 64 bits reach, is
/// `yx::CIOError` `CorruptData` "Invalid extent size in VMDK descriptor: " and the number, with
/// "uri".
std::vector<DiskExtent> listDescribedExtents(CVMDKDescriptor const& descriptor,
                                             yx::CURI const& mainFile, __int64 grainSizeBytes,
                                             bool isCompressed);

/// The same for one who knows the names already: `files` are the normalised ones of all extents, and
/// are taken over. They stay as they are if this throws.
std::vector<DiskExtent> listDescribedExtents(CVMDKDescriptor const& descriptor,
                                             yx::CURI const& mainFile,
                                             std::vector<yx::CURI>&& files, __int64 grainSizeBytes,
                                             bool isCompressed);

/// How a disk as a whole is cut into extents and grains: the one place for arithmetic with either.
/// Knows nothing of the files, which may be cut into other grains: see `ExtentGrains`.
class DiskLayout {
public:
    /// The layout that the descriptor of an open disk describes.
    explicit DiskLayout(CVMDKDisk& disk);

    /// At least one extent; the first starts at 0, and each next one where the one before ends. All
    /// have one grain size, above 0.
    explicit DiskLayout(std::vector<DiskExtent> extents);

    /// All extents in the order of the disk, without gaps.
    std::vector<DiskExtent> const& getExtents() const { return m_extents; }

    /// The index of the extent that holds the byte; the number of extents if none does.
    std::size_t findExtent(__int64 positionBytes) const;

    /// The size of the disk, and that of its grains.
    __int64 getSizeBytes() const { return m_extents.back().endBytes; }
    __int64 getGrainSizeBytes() const { return m_extents.front().grainSizeBytes; }

    /// How many grains the disk has; the last one may be cut short.
    __int64 getGrainCount() const;

    /// Whether all extents but the last are whole numbers of grains. If not, the grains of the
    /// files are not those of the disk.
    bool areExtentsWholeGrains() const { return m_areExtentsWholeGrains; }

    /// How many bytes of the grain that starts there lie in the disk.
    int getGrainBytesAt(__int64 grainStartBytes) const;

    /// Calls `use(positionBytes, bytes)` for each part of a range that lies in one grain, in order.
    template <class Use>
    void forEachGrainPart(__int64 positionBytes, __int64 bytes, Use const& use) const {
        while (bytes > 0) {
            int const step = getPartBytes(positionBytes, bytes);
            use(positionBytes, step);
            positionBytes += step;
            bytes -= step;
        }
    }

private:
    int getPartBytes(__int64 positionBytes, __int64 bytes) const;
    void verifyInvariants() const;

    std::vector<DiskExtent> m_extents;
    bool m_areExtentsWholeGrains = true;
};

} // namespace kelm::host
