#pragma once

#include <optional>

#include "yx/uri.h"

namespace kelm::host {

/// How much this process can still write to the file system of a folder; nothing if that cannot be
/// learned, or the URI has no store.
std::optional<__int64> getFreeBytes(yx::CURI const& folder);

/// The longest that a file of this name may become: `IStore::getMaxFileLengthBytes`; the largest
/// number for a URI without a store.
__int64 getMaxFileLengthBytes(yx::CURI const& uri);

} // namespace kelm::host
