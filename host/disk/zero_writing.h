#pragma once

#include "host/disk/disk_reading.h"
#include "host/disk/disk_writing.h"
#include "kelm/graindata/data_preparer.h"
#include "kelm/graindata/prepared_zero_grain.h"

namespace kelm::host {

/// Makes ranges of a disk read as zeros, taking no space where they do already.
///
/// A grain of a child disk that turns all zero over a parent with data there is stored: the library
/// would give it no place of its own, and the parent's old data would show again.
class ZeroWriting {
public:
    /// All of them must outlive the object.
    ZeroWriting(CVMDKDisk& disk, DiskLayout const& layout, ChainGrains& grains,
                DiskReading& reading, DiskWriting& writing);

    /// Makes a range within one grain of a file (`ChainGrains::at`) read as zeros.
    void writeInGrain(__int64 positionBytes, int bytes);

    /// Stores a grain of the disk as zeros (`FileGrain::isGrainOfDisk`).
    void storeGrain(__int64 grainIndex, DiskWriting::Content content);

private:
    void zeroOtherGrain(FileGrain const& fileGrain);

    CVMDKDisk& m_disk;
    DiskLayout const& m_layout;
    ChainGrains& m_grains;
    DiskReading& m_reading;
    DiskWriting& m_writing;
    bool m_hasParent;
    yx::P<CVMDKDataPreparer> m_preparer;
    CVMDKPreparedZeroGrain m_zeroGrain;
    yx::TBuffer<unsigned char> m_grain;
};

} // namespace kelm::host
