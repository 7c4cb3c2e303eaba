#pragma once

#include "yx/base.h"

namespace yx {

/// A stream on a file of the operating system. An optional companion of `IIOStream`: a host asks
/// for it by `dynamic_cast` where it must know which file is open, since the name may be another
/// file's by now. The streams of `CNativeFileSystem` have it.
class YX_API INativeStream : public virtual IBase {
public:
    /// The open file, which stays the stream's own, for questions about the file; -1 once the
    /// stream is closed, or if it passes on to one that has none.
    virtual int getFileDescriptor() const = 0;
};

} // namespace yx
