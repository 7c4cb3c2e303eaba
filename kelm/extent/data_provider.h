#pragma once

#include "kelm/export.h"
#include "yx/buffer.h"

namespace kelm {

/// Where an extent falls through to for grains that it has no data of: the parent disk of a child
/// disk. All positions are bytes from the start of the whole disk. What goes wrong in the source
/// passes through.
class KELM_API IVMDKDataProvider : public virtual yx::IBase {
public:
    /// Fills `buffer` with `bytes` plain bytes; zeros where the source has no more.
    virtual void getData(__int64 position, void* buffer, int bytes) = 0;

    /// Fills `data` with one whole grain in prepared form. `grainSizeBytes` and `compressed` tell
    /// the form that the caller stores.
    virtual void getPreparedGrainData(__int64 position, yx::TBuffer<unsigned char>& data,
                                      int grainSizeBytes, bool compressed) = 0;

    /// Whether the source, or what it falls through to in turn, holds the grain at `position`.
    virtual bool isGrainWritten(__int64 position) = 0;
};

} // namespace kelm
