#pragma once

#include "host/transfer/grain_item.h"
#include "host/transfer/preparer_set.h"

namespace kelm::host {

/// Decodes the grains that a `WrittenGrainReader` has read, on the worker threads of a pipeline.
class Unpreparer {
public:
    /// For grains of `disk`, which need not outlive this object.
    Unpreparer(SafeDisk& disk, int workerCount);

    /// The plain bytes of the item's input: the input itself if it is plain, else `aux1`. Data that
    /// cannot be decoded are `CIOError` `CorruptData`.
    yx::P<GrainItem::Buffer> getPlain(GrainItem const& item, int worker);

private:
    PreparerSet m_preparers;
};

} // namespace kelm::host
