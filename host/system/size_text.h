#pragma once

#include <string>

#include "yx/base.h"

namespace kelm::host {

/// Parses a size in bytes: decimal digits, then at most one of the letters K, M, G, T in either
/// case, which stand for powers of 1024; for example "40G", "512M" or "65536". Anything else, and a
/// size of 2^63 or more, is `yx::CError` "Invalid size: '" text "'".
__int64 parseSize(std::string const& text);

/// A size for people, with one decimal from 1 KiB on: "512 bytes", "1.5 GiB".
std::string formatSize(__int64 sizeBytes);

/// A range of bytes or grains by its first and its last: "65536-131071". `end` is behind the last;
/// an empty range is shown as its first.
std::string formatRange(__int64 first, __int64 end);

} // namespace kelm::host
