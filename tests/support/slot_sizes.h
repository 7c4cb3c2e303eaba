#pragma once

#include "yx/file_system.h"

namespace test_support {

/// Changes the size of a grain's slot in the table of a compressed extent file alone, as half of a
/// flush would. `grain` is counted in the extent.
void setSlotSize(yx::IFileSystem* files, yx::CURI const& extent, __int64 grain,
                 __int64 sizeSectors);

/// Does so with 0 for all grains that the extent holds, and says how many these are: what a power
/// cut leaves between the flush of the grain tables and that of the slot sizes.
int loseSlotSizes(yx::IFileSystem* files, yx::CURI const& extent);

} // namespace test_support
