#include "kelm/metadata/internal/table_io.h"

#include <limits>

#include "kelm/format/constants.h"
#include "yx/error.h"

namespace kelm {

void throwCorruptField(yx::IStreamBase& stream, char const* field, __int64 value) {
    throw yx::CIOError(yx::CIOError::CorruptData,
                       yx::String("Invalid ") + field +
                           " in VMDK sparse extent: " + yx::toString(value),
                       uriPropsOf(stream), nullptr);
}

bool isMetadataSizePlausible(yx::IStreamBase& stream, __int64 sizeBytes) {
    return sizeBytes <= kUncheckedMetadataSizeBytes || sizeBytes <= stream.getLength();
}

void seekToSector(yx::IStreamBase& stream, __int64 posSectors, char const* field) {
    constexpr __int64 kMaxSectors = std::numeric_limits<__int64>::max() / kSectorSizeBytes;
    if (posSectors < 0 || posSectors > kMaxSectors)
        throwCorruptField(stream, field, posSectors);
    stream.seek(posSectors * kSectorSizeBytes);
}

} // namespace kelm
