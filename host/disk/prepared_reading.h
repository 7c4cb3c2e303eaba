#pragma once

#include "host/disk/disk_reading.h"

namespace kelm::host {

/// Reads grains in the form in which a file stores them. Use `DiskReading` for plain bytes.
class PreparedReading {
public:
    /// `layout` and `reading` must outlive the object.
    PreparedReading(CVMDKDisk& disk, DiskLayout const& layout, DiskReading& reading);

    /// Fills `data` with a whole grain in prepared form, or returns false where that cannot be: the
    /// last grain of a disk or of a parent that is no whole number of grains, and a grain of a
    /// parent that stores its grains in another form.
    bool tryRead(__int64 grainIndex, yx::TBuffer<unsigned char>& data);

private:
    bool tryReadFrom(CVMDKDisk& disk, __int64 grainIndex, yx::TBuffer<unsigned char>& data);

    DiskLayout const& m_layout;
    DiskReading& m_reading;
    bool m_hasParent;
    bool m_isCompressed;
    bool m_parentIsOfOneForm = true;
};

} // namespace kelm::host
