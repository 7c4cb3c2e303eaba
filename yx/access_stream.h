#pragma once

#include "yx/stream.h"

namespace yx {

/// Shows what a stream was opened for. An optional companion of `IIOStream`: the buffering layer
/// asks for it by `dynamic_cast`, so that it can refuse a write to a read-only stream at once, and
/// not only when it writes back what it holds.
class YX_API IAccessStream : public virtual IBase {
public:
    /// What the stream was opened for; the same as long as it lives, also when it is closed.
    virtual IIOStream::Access getAccess() const = 0;
};

} // namespace yx
