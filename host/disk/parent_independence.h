#pragma once

#include "host/disk/prepared_reading.h"
#include "host/disk/zero_writing.h"

namespace kelm::host {

/// Gives a child disk copies of what its parent holds. It is for disks with a parent alone: without
/// one, the library's own operation would leave its cursor a grain ahead of the open grain.
class ParentIndependence {
public:
    /// All of them must outlive the object.
    ParentIndependence(CVMDKDisk& disk, DiskLayout const& layout, ChainGrains& grains,
                       DiskReading& reading, PreparedReading& preparedReading, DiskWriting& writing,
                       ZeroWriting& zeroWriting);

    /// Gives a grain that the parent holds a copy of its own. Flushes first if there are unwritten
    /// changes, which a grain without a place of its own would lose. Grains that are here, or
    /// nowhere in the chain, stay as they are, and so does a grain that has no prepared form
    /// (`FileGrain::isGrainOfDisk`) and reads as zeros, as it does without a parent too. The
    /// content ID stays.
    void makeGrainIndependent(__int64 grainIndex);

    /// Stores what the disk reads at a grain, zeros too, so that another parent can have other data
    /// there. The same holds as for `makeGrainIndependent`, but that a grain which is nowhere in
    /// the chain is stored as zeros.
    void holdGrain(__int64 grainIndex);

    /// The same for a grain that has been read by `PreparedReading::tryRead` since it last changed.
    /// `prepared` is that form; the index in a record becomes that of the grain.
    void holdPreparedGrain(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared);

    /// The same for one that has then been enciphered for its index and for this disk, a record with
    /// that index.
    void holdEncipheredGrain(__int64 grainIndex, yx::TBuffer<unsigned char> const& enciphered);

private:
    bool beginHolding(__int64 grainIndex);
    void flushUnwrittenChanges();
    void copyGrain(__int64 grainIndex);
    bool tryCopyPrepared(__int64 grainIndex);
    void storePrepared(__int64 grainIndex, yx::TBuffer<unsigned char>& prepared);
    void copyPlain(__int64 positionBytes, int bytes);

    DiskLayout const& m_layout;
    ChainGrains& m_grains;
    DiskReading& m_reading;
    PreparedReading& m_preparedReading;
    DiskWriting& m_writing;
    ZeroWriting& m_zeroWriting;
    yx::P<CVMDKDataPreparer> m_preparer;
    yx::TBuffer<unsigned char> m_grain;
};

} // namespace kelm::host
