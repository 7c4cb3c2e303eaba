#pragma once

#include "host/transfer/grain_item.h"
#include "host/transfer/preparer_set.h"

namespace kelm::host {

/// What to demand of compressed records that are copied as they are.
enum class RecordCheck {
    Decode, ///< that they decode, and name the grain that they are
    None,   ///< nothing
};

/// Verifies compressed records that go from one disk to another as they are, on the worker threads
/// of a pipeline: a copy of a damaged record would be as damaged, and nobody would know. Not for
/// grains that are decoded anyway.
class RecordVerifier {
public:
    /// For records of `disk`, which need not outlive this object.
    RecordVerifier(SafeDisk& disk, int workerCount);

    /// Verifies the input of an item, which is prepared, and returns its content; uses `aux1`. `CIOError` `CorruptData` if
    /// the record names another grain ("The record of the grain names another grain.", with
    /// "recordLBA" and "expectedLBA"), if it is shorter than its header says ("The record of the
    /// grain is too short.", with "compressedGrainSize"), or if it cannot be decoded, which
    /// includes the checksum of its data.
    yx::P<GrainItem::Buffer> verify(GrainItem const& item, int worker);

private:
    void verifyHeader(GrainItem const& item) const;

    PreparerSet m_preparers;
    unsigned long long m_grainSizeSectors;
};

} // namespace kelm::host
