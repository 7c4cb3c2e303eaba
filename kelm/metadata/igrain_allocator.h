#pragma once

#include "kelm/export.h"
#include "yx/buffer.h"

namespace kelm {

/// Finds places in the extent file for new grains, as `CVMDKGrain` sees it.
class KELM_API IVMDKGrainAllocator : public virtual yx::IBase {
public:
    /// Completes the file after allocations.
    virtual void flushChangesToStream() = 0;

    /// Reserves a slot of `slotSizeSectors` for the grain of that index in the extent, stores
    /// `size` bytes of `data` there, and enters the slot in the grain table. Returns the slot's
    /// first sector.
    virtual __int64 allocNewGrain(__int64 grainIndex, void const* data, int size,
                                  int slotSizeSectors) = 0;

    /// As `allocNewGrain`, for bytes that the caller leaves unchanged, so that the stream can pass
    /// them on without a copy.
    virtual __int64 allocNewGrainKeepBuffer(__int64 grainIndex,
                                            yx::TConstBufferSlice<unsigned char> const& data,
                                            int slotSizeSectors) = 0;
};

} // namespace kelm
