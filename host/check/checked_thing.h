#pragma once

#include <algorithm>
#include <string>

#include "yx/base.h"

namespace kelm::host {

/// A stretch of a disk, in bytes.
struct ByteRange {
    /// The first byte.
    __int64 startBytes = 0;

    /// Behind the last byte.
    __int64 endBytes = 0;

    /// Whether there is no byte in it.
    bool isEmpty() const { return startBytes >= endBytes; }

    /// Makes this range reach from the first to the last byte of both.
    void include(ByteRange const& other) {
        if (other.isEmpty())
            return;
        startBytes = isEmpty() ? other.startBytes : std::min(startBytes, other.startBytes);
        endBytes = std::max(endBytes, other.endBytes);
    }
};

/// A numbered thing that a finding may be about.
struct CheckedThing {
    /// What may be wrong.
    enum class Kind {
        Grain, ///< a grain
        Table, ///< a grain table, with all of its grains
    };

    /// What it is.
    Kind kind = Kind::Grain;

    /// Grains are numbered as in the disk, tables as in their extent.
    __int64 number = 0;

    /// The bytes of the disk that it stands for; none where it lies behind the end.
    ByteRange bytes;

    /// "grain" or "grain table".
    char const* getNoun() const { return kind == Kind::Grain ? "grain" : "grain table"; }

    /// "grain 7", "grain table 0".
    std::string getName() const { return getNoun() + (" " + std::to_string(number)); }
};

} // namespace kelm::host
