#include "host/transfer/record_verifier.h"

#include <cassert>

#include "kelm/graindata/internal/grain_record.h"
#include "yx/error.h"

namespace kelm::host {

RecordVerifier::RecordVerifier(SafeDisk& disk, int workerCount)
    : m_preparers(disk, workerCount),
      m_grainSizeSectors(
          static_cast<unsigned long long>(disk.getGrainSizeBytes() / kSectorSizeBytes)) {
    assert(disk.getDisk().getCompressed());
}

yx::P<GrainItem::Buffer> RecordVerifier::verify(GrainItem const& item, int worker) {
    assert(item.inputIsPrepared);
    // The decoder also finds a record that is too short for a header.
    if (item.input->getUsed() >= kGrainRecordHeaderSizeBytes)
        verifyHeader(item);
    return m_preparers.of(worker).unprepareGrainData(item.input.get(), item.aux1.get());
}

void RecordVerifier::verifyHeader(GrainItem const& item) const {
    unsigned char const* const record = item.input->getData();
    unsigned long long const recordLBA = loadGrainRecordLBA(record);
    unsigned long long const expectedLBA =
        static_cast<unsigned long long>(item.grainIndex) * m_grainSizeSectors;
    if (recordLBA != expectedLBA) {
        throw yx::CIOError(yx::CIOError::CorruptData,
                           "The record of the grain names another grain.",
                           yx::CProps()
                               .add("recordLBA", yx::toString(recordLBA))
                               .add("expectedLBA", yx::toString(expectedLBA)),
                           nullptr);
    }
    unsigned int const compressedBytes = loadGrainRecordCompressedSize(record);
    if (compressedBytes + __int64{kGrainRecordHeaderSizeBytes} > item.input->getUsed()) {
        throw yx::CIOError(yx::CIOError::CorruptData, "The record of the grain is too short.",
                           yx::CProps().add("compressedGrainSize", yx::toString(compressedBytes)),
                           nullptr);
    }
}

} // namespace kelm::host
