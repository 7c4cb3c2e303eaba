#pragma once

#include <string>
#include <vector>

#include "yx/uri.h"

namespace kelm::host {

/// A stretch of a disk that could not be read as it was.
struct DamagedStretch {
    /// The first byte, and the byte behind the last one.
    __int64 startBytes = 0;
    __int64 endBytes = 0;

    /// The file that should have had it.
    yx::CURI file;

    /// What is wrong with it, as what is said of "it": "lies outside the file".
    std::string reason;
};

/// The damaged stretches of a disk, in order. Neighbours with one reason in one file are one. There
/// are 131072 of them at most: the last one then reaches to the end of the last damage, whatever
/// lies between.
class DamageList {
public:
    /// Adds a stretch; stretches come in order and do not overlap.
    void add(DamagedStretch const& stretch);

    /// All of them, in order.
    std::vector<DamagedStretch> const& getStretches() const { return m_stretches; }

    /// How many bytes the stretches have.
    __int64 getDamagedBytes() const { return m_damagedBytes; }

    /// Whether nothing is damaged.
    bool isEmpty() const { return m_stretches.empty(); }

private:
    std::vector<DamagedStretch> m_stretches;
    __int64 m_damagedBytes = 0;
};

} // namespace kelm::host
