#pragma once

#include "yx/base.h"

namespace kelm::host {

/// Bytes that are read at any place, such as those of a disk. Not for long reading in order: see
/// `ContentReader`.
class ByteSource {
public:
    virtual ~ByteSource() = default;

    /// How many bytes there are.
    virtual __int64 getSizeBytes() const = 0;

    /// Reads bytes, all of which are there.
    virtual void read(__int64 positionBytes, unsigned char* data, int bytes) = 0;
};

} // namespace kelm::host
