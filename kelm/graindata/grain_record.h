#pragma once

#include <climits>

#include "kelm/format/constants.h"
#include "yx/base.h"

namespace kelm {

// Access in place to the header of a compressed grain's record; `CVMDKDataPreparer` has the layout.

inline constexpr int kGrainRecordLBAOffset = 0;
inline constexpr int kGrainRecordCompressedSizeOffset = 8;
inline constexpr int kGrainRecordHeaderSizeBytes = 12;

/// `value` rounded up to a multiple of `unit`; `value` is not negative, `unit` is above 0.
constexpr __int64 roundUpToMultiple(__int64 value, __int64 unit) {
    return (value + unit - 1) / unit * unit;
}

constexpr __int64 roundUpToSectors(__int64 sizeBytes) {
    return (sizeBytes + kSectorSizeBytes - 1) / kSectorSizeBytes;
}

namespace detail {

// Compilers make one move of each of these.

template <class Value>
Value loadLittleEndian(unsigned char const* source) {
    Value value = 0;
    for (unsigned int i = 0; i < sizeof(Value); ++i)
        value |= static_cast<Value>(source[i]) << (i * CHAR_BIT);
    return value;
}

template <class Value>
void storeLittleEndian(unsigned char* target, Value value) {
    for (unsigned int i = 0; i < sizeof(Value); ++i)
        target[i] = static_cast<unsigned char>(value >> (i * CHAR_BIT));
}

} // namespace detail

inline unsigned long long loadGrainRecordLBA(unsigned char const* record) {
    return detail::loadLittleEndian<unsigned long long>(record + kGrainRecordLBAOffset);
}

inline void storeGrainRecordLBA(unsigned char* record, unsigned long long lba) {
    detail::storeLittleEndian(record + kGrainRecordLBAOffset, lba);
}

inline unsigned int loadGrainRecordCompressedSize(unsigned char const* record) {
    return detail::loadLittleEndian<unsigned int>(record + kGrainRecordCompressedSizeOffset);
}

inline void storeGrainRecordCompressedSize(unsigned char* record, unsigned int sizeBytes) {
    detail::storeLittleEndian(record + kGrainRecordCompressedSizeOffset, sizeBytes);
}

} // namespace kelm
