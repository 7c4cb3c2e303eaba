#pragma once

#include "host/disk/disk_reading.h"

namespace kelm::host {

/// Reads grains in the form in which a file stores them. Use `DiskReading` for plain bytes.
class PreparedReading {
public:
    /// All of them must outlive the object.
    PreparedReading(DiskLayout const& layout, ChainGrains& grains, DiskReading& reading);

    /// Fills `data` with a whole grain in prepared form, or returns false where that cannot be, as
    /// `ChainGrains::findPrepared` says. Read it in plain form then.
    bool tryRead(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

    /// Fills `data` with a whole grain as a file of the chain holds it, enciphered, and returns the
    /// place of that disk in the chain: 0 for the disk itself, whose cipher is then the one to use.
    /// Returns -1 where no disk holds the grain, where the one that holds it is not encrypted, and
    /// where it has no prepared form.
    int tryReadEnciphered(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

private:
    DiskLayout const& m_layout;
    ChainGrains& m_grains;
    DiskReading& m_reading;
};

} // namespace kelm::host
