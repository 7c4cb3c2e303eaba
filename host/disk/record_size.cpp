#include "host/disk/record_size.h"

namespace kelm::host {

__int64 readRecordSizeSectors(yx::IIOStream& stream, CVMDKSparseExtentHeader const& header,
                              __int64 diskGrainIndex, __int64 posSectors) {
    unsigned char record[kGrainRecordHeaderSizeBytes];
    stream.seek(posSectors * kSectorSizeBytes);
    if (stream.readLax(record, kGrainRecordHeaderSizeBytes) < kGrainRecordHeaderSizeBytes)
        return 0;
    if (loadGrainRecordLBA(record) !=
        static_cast<unsigned long long>(diskGrainIndex) * header.getGrainSizeSectors())
        return 0;
    return recordSizeSectors(header, loadGrainRecordCompressedSize(record));
}

} // namespace kelm::host
