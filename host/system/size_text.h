#pragma once

#include <string>

#include "yx/base.h"

namespace kelm::host {

/// Reads a size in bytes: decimal digits and at most one of the letters K, M, G, T (of either case,
/// powers of 1024), as in "40G", "512M" or "65536". Anything else, and what exceeds 64 bits, is
/// `yx::CError` "Invalid size: '" text "'".
__int64 parseSize(std::string const& text);

/// A size for people, with one decimal from 1 KiB on: "512 bytes", "1.5 GiB".
std::string formatSize(__int64 sizeBytes);

} // namespace kelm::host
