#pragma once

#include "yx/base.h"

namespace kelm::host {

/// The fewest rounds of key derivation for new disks, whatever the machine; what is recommended for
/// the digest that derives them grows with the years.
constexpr __int64 kFewestKeyRounds = 600'000;

/// As many rounds as take about half a second on this machine, at least `kFewestKeyRounds`.
/// Measured at each call, which takes some hundredths of a second.
__int64 measureKeyRounds();

} // namespace kelm::host
