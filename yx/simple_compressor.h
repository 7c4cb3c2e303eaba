#pragma once

#include "yx/string.h"

namespace yx {

/// A compressor that works in one call. Sizes are in bytes.
class YX_API ISimpleCompressor : public virtual IBase {
public:
    /// A short name of the method, for messages.
    virtual String getInternalDesc() const = 0;

    /// The largest size that compressing `sourceSize` bytes can give.
    virtual int getCompressedSizeUpperBound(int sourceSize) const = 0;

    /// Compresses all of `source` and returns the compressed size, or -1 if `target` is too small
    /// or the method fails; `target` is then undefined.
    virtual int compressSingleStep(void const* source, int sourceSize, void* target,
                                   int targetSize) = 0;

    /// Decompresses `source` and returns the decompressed size. Bytes behind the end of the
    /// compressed stream are ignored. A damaged or short stream, or one that would overflow
    /// `target`, is `CIOError` `CorruptData`; `target` is then undefined.
    virtual int decompressSingleStep(void const* source, int sourceSize, void* target,
                                     int targetSize) = 0;
};

} // namespace yx
