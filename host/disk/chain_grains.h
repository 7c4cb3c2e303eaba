#pragma once

#include <algorithm>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

#include "host/disk/extent_grains.h"
#include "kelm/disk/disk.h"

namespace kelm::host {

class ChainMap;

/// What may be taken as a whole at a place of a disk: the one place that decides about every short
/// cut past reading and writing plain bytes. Each extent of the disk and of each of its parents may
/// have a grain size and a form of its own, and any length, so that all of them have to be asked.
///
/// - Nothing in the chain holds a range: it need not be read, for it is zeros (`isWritten`).
/// - Nothing holds what follows a position, for a while (`countUnwrittenBytes`).
/// - The disk itself holds a range (`isWrittenHere`).
/// - A grain can be read in prepared form (`findPrepared`).
/// - A grain can be read as the file of one of the disks holds it (`findHolder`).
/// - A grain can be written in prepared form (`at`, `FileGrain::isGrainOfDisk`).
///
/// The bare library answers all of this for the first byte of a grain only.
///
/// Without a map (`useMap`) each of the chain's disks is asked in turn, down to the one that holds a
/// grain.
///
/// Functions that look into tables are given the object to ask: the disk, or another object of the
/// same disk, as `DiskReading::useDisk` chooses it. Its cursor moves, and so do those of its
/// parents. They open parents as far as needed, and throw what that and reading tables and headers
/// throws.
class ChainGrains {
public:
    /// `layout` is that of `disk`.
    ChainGrains(yx::IFileSystem* fileSystem, CVMDKDisk& disk, DiskLayout const& layout);

    /// From now on the map says which disk of the chain holds a grain, wherever it knows. For a disk
    /// that is only read: `disk` is then always the same object.
    void useMap(std::shared_ptr<ChainMap> map) { m_map = std::move(map); }

    /// Reads exactly `bytes` bytes of the disk, in it, from the disks that hold them, or returns
    /// false where the map does not know them all: read `disk` then. Errors are those of reading
    /// `disk`.
    bool tryReadByMap(CVMDKDisk& disk, __int64 positionBytes, void* buffer, int bytes);

    /// The grain of the disk's own files that holds a byte of the disk; see `ExtentGrains::at`.
    FileGrain at(__int64 positionBytes) { return m_levels.front().at(positionBytes); }

    /// Calls `use(positionBytes, bytes)` for each part of a range that lies in one grain of a file,
    /// in order.
    template <class Use>
    void forEachPart(__int64 positionBytes, __int64 bytes, Use const& use) {
        __int64 const endBytes = positionBytes + bytes;
        while (positionBytes < endBytes) {
            __int64 const partEndBytes = std::min(at(positionBytes).endBytes, endBytes);
            use(positionBytes, static_cast<int>(partEndBytes - positionBytes));
            positionBytes = partEndBytes;
        }
    }

    /// Whether the disk or one of its parents holds a grain of which a byte is in the range; false
    /// means that the range reads as zeros.
    bool isWritten(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes);

    /// How many of the bytes from the start of a grain on, at most `maxBytes`, are known to be zeros
    /// since nothing in the chain holds a grain there: all of `maxBytes`, or fewer, or 0, which says
    /// nothing. Looks into tables by the run, so it is much faster than `isWritten` where a disk is
    /// nearly empty.
    __int64 countUnwrittenBytes(CVMDKDisk& disk, __int64 positionBytes, __int64 maxBytes) {
        return countUnwrittenFrom(0, disk, positionBytes, maxBytes);
    }

    /// How many of the bytes from the start of a grain on, at most `maxBytes`, are known to lie in
    /// grains of which the disk's own files hold nothing: neither `isWrittenHere` nor anything but
    /// `isPassedOn`. 0 says nothing.
    __int64 countBytesNotHere(CVMDKDisk& disk, __int64 positionBytes, __int64 maxBytes) {
        return countBytesNotIn(0, disk, positionBytes, maxBytes);
    }

    /// Whether the disk's own files hold every grain of which a byte is in the range.
    bool isWrittenHere(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes);

    /// Whether the disk reads all of a range from its parent, from the same place there: its own
    /// files hold nothing of it. A disk without a parent reads zeros instead.
    bool isPassedOn(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes);

    /// A disk of the chain.
    struct Holder {
        yx::P<CVMDKDisk> disk; ///< null for none
        int level = 0;         ///< its place in the chain: 0 for the disk itself
    };

    /// Nothing, unless the prepared form of a grain, as `CVMDKDisk::readPreparedGrainData` reads it,
    /// stands for the bytes of the disk there: it is a grain of the disk, and so it is in each parent
    /// down to the one that holds it, in the same size and form. Otherwise the disk that holds it,
    /// with the cursor there, whose own grain of that index it is; null where no disk holds it.
    std::optional<Holder> findPrepared(CVMDKDisk& disk, __int64 grainIndex);

    /// The disk that `findPrepared` finds; null also where it finds nothing.
    Holder findHolder(CVMDKDisk& disk, __int64 grainIndex) {
        return findPrepared(disk, grainIndex).value_or(Holder());
    }

private:
    __int64 countBytesNotIn(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                            __int64 maxBytes);
    __int64 countUnwrittenFrom(std::size_t level, CVMDKDisk& disk, __int64 positionBytes,
                               __int64 maxBytes);
    std::optional<bool> tryIsWrittenByMap(CVMDKDisk& disk, __int64 positionBytes, __int64 bytes);
    yx::P<CVMDKDisk> const& openLevel(CVMDKDisk& disk, int level);
    void openChain(CVMDKDisk& disk);
    bool isWrittenFrom(std::size_t level, CVMDKDisk& disk, __int64 positionBytes, __int64 bytes);
    ExtentGrains& levelOf(std::size_t level, CVMDKDisk& disk);
    bool hasFormOfDisk(DiskLayout const& parent) const;

    yx::P<yx::IFileSystem> m_fileSystem;

    /// The disk, then its parents in order, as far as they were needed. References to them stay
    /// good while it grows.
    std::deque<ExtentGrains> m_levels;

    /// Null without one.
    std::shared_ptr<ChainMap> m_map;

    /// With a map: the parents in order, as far as they were needed, and whether those are all.
    std::vector<yx::P<CVMDKDisk>> m_parents;
    bool m_isChainOpen = false;
};

} // namespace kelm::host
