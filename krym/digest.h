#pragma once

#include "krym/export.h"
#include "yx/base.h"

namespace krym {

/// Hashes one message: `update` as often as needed, then `finish`, then `getData`. Any other order
/// is `yx::CError` with code -1: "Internal error: digest is finished already" from `update` and
/// `finish`, "Internal error: digest is not finished yet" from `getData`.
class KRYM_API IDigest : public virtual yx::IBase {
public:
    /// The digest's size in bytes.
    virtual int getSize() = 0;

    /// Feeds `sizeBytes` bytes.
    virtual void update(void const* data, int sizeBytes) = 0;

    /// Ends the message.
    virtual void finish() = 0;

    /// The digest's `getSize()` bytes, valid as long as the object.
    virtual void const* getData() = 0;
};

} // namespace krym
