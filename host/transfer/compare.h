#pragma once

#include <optional>

#include "host/system/work_options.h"
#include "host/transfer/content_reader.h"

namespace kelm::host {

/// What a comparison found.
struct Comparison {
    /// Where the first byte differs, if one does.
    std::optional<__int64> firstDifferenceBytes;

    /// How many bytes differ. What one side has behind the end of the other counts where it is not
    /// zero, since disks are rounded up.
    __int64 differingBytes = 0;

    /// How many bytes were read of each side.
    __int64 leftBytes = 0;
    __int64 rightBytes = 0;

    /// Whether nothing differs.
    bool isEqual() const { return differingBytes == 0; }
};

/// Compares two contents up to the end of the longer one. Reads all of both.
Comparison compareContent(ContentReader& left, ContentReader& right, WorkOptions const& options);

} // namespace kelm::host
