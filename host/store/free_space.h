#pragma once

#include <optional>

#include "yx/uri.h"

namespace kelm::host {

/// How much this process can still write to the file system of a folder; nothing if that cannot be
/// learned.
std::optional<__int64> getFreeBytes(yx::CURI const& folder);

} // namespace kelm::host
