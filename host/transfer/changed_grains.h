#pragma once

#include <optional>
#include <vector>

#include "host/digest/grain_sample.h"
#include "yx/base.h"

namespace kelm::host {

/// A stretch of an image, in bytes.
struct ImageRange {
    /// The first byte, and behind the last one.
    __int64 startBytes = 0;
    __int64 endBytes = 0;
};

/// The grains of an image that somebody says have changed since the parent of a disk was made, and
/// which of the others are read all the same, to see whether that is true.
class ChangedGrains {
public:
    /// Ranges may come in any order and overlap; what is empty counts not at all. A grain that is
    /// changed in part is changed.
    ChangedGrains(std::vector<ImageRange> const& ranges, __int64 grainSizeBytes);

    /// Also reads those of the others that are in a sample.
    void verifyOthers(GrainSample const& sample) { m_sample = sample; }

    /// Whether a grain is among those that have changed.
    bool isChanged(__int64 grainIndex) const;

    /// The first grain from `grainIndex` on, and before `endGrainIndex`, that is to be read; -1 if
    /// there is none.
    __int64 findNextToRead(__int64 grainIndex, __int64 endGrainIndex) const;

private:
    struct Run {
        __int64 first;
        __int64 end;
    };

    std::vector<Run>::const_iterator findRun(__int64 grainIndex) const;

    /// In order, with gaps between them.
    std::vector<Run> m_runs;
    std::optional<GrainSample> m_sample;
};

} // namespace kelm::host
