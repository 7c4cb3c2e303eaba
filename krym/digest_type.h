#pragma once

#include "krym/digest.h"

namespace krym {

/// Makes digests of one kind.
class KRYM_API IDigestType : public virtual yx::IBase {
public:
    /// A new object to hash one message with.
    virtual yx::P<IDigest> createDigest() = 0;
};

} // namespace krym
