#pragma once

#include <iosfwd>
#include <random>
#include <string>
#include <vector>

#include "tests/support/bytes.h"

namespace test_support {

/// Where grains of a foreign disk lie: one line of its descriptor, and the file that it names.
struct ForeignExtent {
    __int64 sizeSectors = 0;
    __int64 grainSizeSectors = 128;
    bool compressed = false;

    /// Whether the file's header has the capacity of whole grains, although the line ends before.
    bool hasRoundedCapacity = false;

    /// Whether the file is left for the first write to make. It then becomes a file of the first
    /// extent's grain size and form, and is to be a whole number of such grains.
    bool onDemand = false;
};

/// A disk as other software may make it and `kelm::CVMDKDisk::create` does not: any grain size,
/// extents of different grain size and form, extents that are no whole number of grains.
struct ForeignDisk {
    /// The main file.
    std::string name = "disk.vmdk";

    /// At least one. The first is never on demand, because a disk has its grain size from it.
    std::vector<ForeignExtent> extents;

    /// Whether the descriptor is in the only extent; otherwise it is a file of its own.
    bool embedded = false;

    /// For an encrypted disk; empty otherwise.
    std::string password = {};

    __int64 sizeBytes() const;

    /// Of the first extent, which counts for the disk as a whole.
    __int64 grainSizeBytes() const;
    bool isCompressed() const;

    /// Where an extent begins, and which grain of the disk the library takes its first one for:
    /// both are counted in grains of the disk, rounded up.
    __int64 startSector(std::size_t extent) const;
    __int64 startGrainIndex(std::size_t extent) const;

    /// Whether all extents have one grain size and form, and all but the last are whole grains.
    bool isRegular() const;

    /// The file of an extent.
    std::string extentName(std::size_t extent) const;
};

/// One line for the messages of tests.
std::ostream& operator<<(std::ostream& stream, ForeignDisk const& disk);

/// Makes the files of an empty disk in `folder`, with the library's maker of empty extents and by
/// hand. `parentName` is the main file of its parent in the same folder, empty for none; `password`
/// opens the parent.
void makeForeignDisk(yx::IFileSystem& files, yx::CURI const& folder, ForeignDisk const& disk,
                     std::string const& parentName = "", std::string const& password = "");

/// The password of all encrypted disks that `drawForeignChain` draws.
inline constexpr char kForeignPassword[] = "secret";

/// Draws a chain of two to four disks, the oldest first. Grain sizes are 8 to 2,048 sectors, forms
/// and lengths mixed; one chain in three has one grain size and form throughout.
std::vector<ForeignDisk> drawForeignChain(std::mt19937& random);

} // namespace test_support
