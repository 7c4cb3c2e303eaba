#pragma once

#include "kelm/format/internal/little_endian.h"
#include "kelm/format/internal/rounding.h"

namespace kelm {

// Access to the fields of a compressed grain's record header, in place. `CVMDKDataPreparer` has the
// layout.

inline constexpr int kGrainRecordLBAOffset = 0;
inline constexpr int kGrainRecordCompressedSizeOffset = 8;
inline constexpr int kGrainRecordHeaderSizeBytes = 12;

inline unsigned long long loadGrainRecordLBA(unsigned char const* record) {
    return loadLittleEndian<unsigned long long>(record + kGrainRecordLBAOffset);
}

inline void storeGrainRecordLBA(unsigned char* record, unsigned long long lba) {
    storeLittleEndian(record + kGrainRecordLBAOffset, lba);
}

inline unsigned int loadGrainRecordCompressedSize(unsigned char const* record) {
    return loadLittleEndian<unsigned int>(record + kGrainRecordCompressedSizeOffset);
}

inline void storeGrainRecordCompressedSize(unsigned char* record, unsigned int sizeBytes) {
    storeLittleEndian(record + kGrainRecordCompressedSizeOffset, sizeBytes);
}

} // namespace kelm
