#pragma once

#include "yx/base.h"

namespace kelm::host {

/// How long an image must be whose end nobody can see in advance: that of a pipe, whose writer may
/// fail half-way.
struct ImageLength {
    /// In bytes; -1 if any length is right.
    __int64 bytes = -1;

    /// Whether fewer bytes are right, too.
    bool mayBeShorter = false;
};

} // namespace kelm::host
