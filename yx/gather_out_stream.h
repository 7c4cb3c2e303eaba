#pragma once

#include "yx/base.h"

namespace yx {

/// An optional companion of `IOutStream`: a stream that can write several pieces of memory in one
/// step implements it too, and the buffering layer then asks for it by `dynamic_cast`.
class YX_API IGatherOutStream : public virtual IBase {
public:
    /// A stretch of memory.
    struct Piece {
        /// Where it is; it must stay as it is during the call.
        void const* data;
        int sizeBytes; ///< 1 or more
    };

    /// Writes `count` pieces (1 or more), one behind the other, from `position` on, which may lie
    /// past the end. Neither uses nor moves the stream's own position. All bytes are written when
    /// it returns, and nothing refers to the pieces any more. Errors are those of `write`; what is
    /// then in the range is not defined.
    virtual void writePieces(__int64 position, Piece const* pieces, int count) = 0;
};

} // namespace yx
