#pragma once

#include "yx/base.h"

namespace kelm::host {

/// Content that is read from start to end for a comparison. For transfers there are readers that
/// know grains: `ImageReader` and `WrittenGrainReader`.
class ContentReader {
public:
    virtual ~ContentReader() = default;

    /// In bytes; -1 if it is not known.
    virtual __int64 getLength() const = 0;

    /// Reads the next `bytes` bytes, fewer only at the end, and returns the count. `isZero` becomes
    /// whether all of them are zeros that are stored nowhere; `buffer` is then not touched.
    virtual int readNext(unsigned char* buffer, int bytes, bool& isZero) = 0;
};

} // namespace kelm::host
