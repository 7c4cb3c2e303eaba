#pragma once

#include "host/disk/chain_grains.h"
#include "host/disk/stored_view.h"
#include "host/disk/table_limit.h"
#include "host/disk/unflushed_grains.h"
#include "yx/error.h"

namespace kelm::host {

/// Reads a disk by positions, and says what it holds. For grains in prepared form, see
/// `PreparedReading`.
///
/// What is stored can be read whether or not changes in memory can be written: where an operation
/// fails while there are such changes, grains that were not changed are read from the files alone,
/// and so are all others of that kind until the next flush that succeeds.
class DiskReading {
public:
    /// All of them must outlive the object. Without the last two, for the reads of operations that
    /// write, every failure passes.
    DiskReading(CVMDKDisk& disk, DiskLayout const& layout, ChainGrains& grains,
                TableLimit& tableLimit, UnflushedGrains* unflushed = nullptr,
                StoredView* storedView = nullptr)
        : m_disk(disk),
          m_layout(layout),
          m_grains(grains),
          m_tableLimit(tableLimit),
          m_unflushed(unflushed),
          m_storedView(storedView) {}

    /// Reads exactly `bytes` bytes at `positionBytes`.
    void read(__int64 positionBytes, void* buffer, int bytes);

    /// Whether the chain holds anything of a range of the disk, or of a grain; false means that it
    /// reads as zeros. See `ChainGrains::isWritten`.
    bool isWritten(__int64 positionBytes, __int64 bytes);
    bool isGrainWritten(__int64 grainIndex);

    /// How many bytes from the start of a grain on, at most `maxBytes`, are known to read as zeros.
    /// See `ChainGrains::countUnwrittenBytes`.
    __int64 countUnwrittenBytes(__int64 positionBytes, __int64 maxBytes);

    /// How many bytes from the start of a grain on, at most `maxBytes`, are known to lie in grains
    /// of the disk of which its own files hold nothing, and which it reads from the same place of
    /// its parent. See `ChainGrains::countBytesNotHere`.
    __int64 countBytesNotHere(__int64 positionBytes, __int64 maxBytes);

    /// Whether this very disk holds all of a range, or of a grain. See
    /// `ChainGrains::isWrittenHere`.
    bool isWrittenHere(__int64 positionBytes, __int64 bytes);
    bool isGrainWrittenHere(__int64 grainIndex);

    /// Whether the disk reads all of a range from the same place of its parent. See
    /// `ChainGrains::isPassedOn`.
    bool isPassedOn(__int64 positionBytes, __int64 bytes);

    /// Calls `use` with the disk that can answer for the grain, and returns what it returns. `use`
    /// may be called twice, and throws no error but those of the disk.
    template <class Use>
    auto useDisk(__int64 grainIndex, Use const& use) {
        if (!isStuck()) {
            try {
                m_tableLimit.keep();
                return use(m_disk);
            } catch (yx::CError const&) {
                // Without changes in memory, nothing but the read itself has failed.
                if (!becomesStuck())
                    throw;
            }
        }
        return use(chooseDisk(grainIndex));
    }

private:
    bool isStuck() const { return m_unflushed && m_unflushed->areStuck(); }
    bool becomesStuck();
    CVMDKDisk& chooseDisk(__int64 grainIndex);

    CVMDKDisk& m_disk;
    DiskLayout const& m_layout;
    ChainGrains& m_grains;
    TableLimit& m_tableLimit;

    /// Null together.
    UnflushedGrains* m_unflushed;
    StoredView* m_storedView;
};

} // namespace kelm::host
