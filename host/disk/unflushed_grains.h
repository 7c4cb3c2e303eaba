#pragma once

#include <map>

#include "host/disk/grain_piece.h"
#include "yx/base.h"

namespace kelm::host {

/// Which grains of a disk were changed since all changes were last brought to the device. Takes
/// memory by those, at most a bit for each grain of the disk.
class UnflushedGrains {
public:
    /// Comes before the change.
    void add(__int64 grainIndex);

    /// Whether the grain may differ from what the files hold.
    bool contains(__int64 grainIndex) const;

    /// Whether the files hold all there is.
    bool isEmpty() const { return m_pieces.empty(); }

    /// Notes that changes could not be brought to the files. Does nothing where there are none.
    void noteFailure() { m_hasFailure = !isEmpty(); }

    /// Whether there are changes that could not be brought to the files.
    bool areStuck() const { return m_hasFailure; }

    /// Comes once all changes are on the device.
    void clear();

private:
    std::map<__int64, GrainPiece> m_pieces;
    bool m_hasFailure = false;
};

} // namespace kelm::host
