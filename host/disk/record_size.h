#pragma once

#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/internal/grain_record.h"
#include "yx/stream.h"

namespace kelm::host {

/// Tables keep the size of a slot in 16 bits.
inline constexpr __int64 kMaxSlotSizeSectors = 65535;

/// The sectors that a record takes in the file of an extent with this header; `compressedBytes` is
/// the size that the record itself gives.
inline __int64 recordSizeSectors(CVMDKSparseExtentHeader const& header, __int64 compressedBytes) {
    __int64 const storedBytes = header.isEncrypted()
                                    ? roundUpToMultiple(compressedBytes, kCipherBlockSizeBytes)
                                    : compressedBytes;
    return roundUpToSectors(kGrainRecordHeaderSizeBytes + storedBytes);
}

/// The sectors that the record takes which begins at a sector of an extent file with this header, as
/// the record itself says; 0 if it is not that of the grain `diskGrainIndex` of the disk. It may
/// reach behind the end of the file. What the stream fails with passes.
__int64 readRecordSizeSectors(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                              __int64 diskGrainIndex, __int64 posSectors);

} // namespace kelm::host
