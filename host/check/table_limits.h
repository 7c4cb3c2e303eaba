#pragma once

#include "yx/base.h"

namespace kelm::host {

/// Entries of tables and directories name sectors in 32 bits, so no table or grain begins behind
/// this.
constexpr __int64 kTableReachSectors = 1LL << 32;

} // namespace kelm::host
