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

    /// How many of the next bytes, at most `maxBytes` and none behind the end, are known to be zeros
    /// that are stored nowhere, without a look at each piece; 0 says nothing.
    virtual __int64 countZeros(__int64 maxBytes) = 0;

    /// Passes over so many of the bytes that `countZeros` has just counted.
    virtual void skipZeros(__int64 bytes) = 0;
};

} // namespace kelm::host
