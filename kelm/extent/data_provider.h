#pragma once

#include "kelm/export.h"
#include "yx/buffer.h"

namespace kelm {

/// Provides the content of grains that an extent has no data for: the parent disk of a child disk.
/// All positions are bytes from the start of the whole disk. Errors of the source pass through.
class KELM_API IVMDKDataProvider : public virtual yx::IBase {
public:
    /// Fills `buffer` with `bytes` plain bytes, and with zeros past the source's end.
    virtual void getData(__int64 position, void* buffer, int bytes) = 0;

    /// Fills `data` with one whole grain in prepared form. `grainSizeBytes` and `compressed` state
    /// the form that the caller needs.
    virtual void getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                                      int grainSizeBytes, bool compressed) = 0;

    /// Whether the source, or a parent of it, has data for the grain at `position`.
    virtual bool isGrainWritten(__int64 position) = 0;
};

} // namespace kelm
