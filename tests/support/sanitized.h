#pragma once

namespace test_support {

/// Sanitizers take several times as long and look at memory, not at disks. There, a part of the
/// cuts, kills and faults will do.
#ifdef __SANITIZE_ADDRESS__
constexpr bool kIsSanitized = true;
#else
constexpr bool kIsSanitized = false;
#endif

} // namespace test_support
