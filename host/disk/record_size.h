#pragma once

#include "kelm/format/sparse_extent_header.h"
#include "kelm/graindata/internal/grain_record.h"

namespace kelm::host {

/// The sectors that a record takes in the file of an extent with this header; `compressedBytes` is
/// the size that the record itself gives.
inline __int64 recordSizeSectors(CVMDKSparseExtentHeader const& header, __int64 compressedBytes) {
    __int64 const storedBytes = header.isEncrypted()
                                    ? roundUpToMultiple(compressedBytes, kCipherBlockSizeBytes)
                                    : compressedBytes;
    return roundUpToSectors(kGrainRecordHeaderSizeBytes + storedBytes);
}

} // namespace kelm::host
