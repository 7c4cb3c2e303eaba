#pragma once

#include <optional>
#include <vector>

#include "host/disk/disk_layout.h"
#include "yx/file_system.h"

namespace kelm::host {

/// A grain of an extent file, as a stretch of the disk.
struct FileGrain {
    /// The part of the grain that lies in the disk: all of it, but in the last grain of an extent
    /// that is no whole number of its grains.
    __int64 startBytes = 0;
    __int64 endBytes = 0;

    /// What a whole grain of the file has.
    __int64 wholeSizeBytes = 0;

    /// Whether the file stores its grains compressed.
    bool isCompressed = false;

    /// Where the parent is read for the grain's first byte if the file does not hold the grain.
    /// Other than `startBytes` where an extent has a grain size of its own, or begins within a
    /// grain of the disk.
    __int64 parentStartBytes = 0;

    /// Whether it is a grain of the disk as a whole: of the size and form that the disk has, where
    /// a grain of the disk begins, and not cut short. Only such a grain has a prepared form in
    /// terms of `CVMDKDisk`.
    bool isGrainOfDisk = false;

    /// What of it lies in the disk.
    int getSizeBytes() const { return static_cast<int>(endBytes - startBytes); }
};

/// How the files of one disk are cut into grains. The library takes grain size and form of a disk
/// from its first extent, and `DiskExtent` repeats them for all extents, but each file has its own,
/// and files of other software make use of that. Knows nothing of the parents; for these, see
/// `ChainGrains`.
class ExtentGrains {
public:
    /// `createsFilesOnDemand` is whether files that are missing will get the form of the first one.
    /// Reads nothing yet.
    ExtentGrains(yx::IFileSystem* fileSystem, DiskLayout const& layout, bool createsFilesOnDemand);

    /// The layout by the descriptor.
    DiskLayout const& getLayout() const { return m_layout; }

    /// The grain that holds a byte of the disk; outside of it `CIOError` `BadPosition`. Reads the
    /// header of each file but the first once, and passes errors of that on. One that cannot be
    /// right counts as one like the first: the library refuses the file.
    FileGrain at(__int64 positionBytes);

private:
    struct Form {
        __int64 grainSizeBytes;
        bool isCompressed;

        bool operator==(Form const&) const = default;
    };

    Form formOf(std::size_t extent);
    Form readForm(DiskExtent const& extent) const;

    yx::P<yx::IFileSystem> m_fileSystem;
    DiskLayout m_layout;
    bool m_createsFilesOnDemand;

    /// For each extent, once it is known.
    std::vector<std::optional<Form>> m_forms;
};

} // namespace kelm::host
