#pragma once

#include "kelm/export.h"
#include "yx/base.h"

namespace kelm {

/// A virtual disk as a positioned byte space, for hosts that hold disks of several kinds behind one
/// interface. Sizes and positions are in bytes. The library's own disks do not derive from it.
class KELM_API IDisk : public virtual yx::IBase {
public:
    /// The size of the byte space; it does not change.
    virtual __int64 getSizeBytes() const = 0;

    /// The cursor.
    virtual __int64 getPosition() const = 0;

    /// Sets the cursor, from 0 to the size.
    virtual void seek(__int64 position) = 0;

    /// Reads exactly `bytes` bytes at the cursor and moves it on.
    virtual void read(void* buffer, int bytes) = 0;

    /// Writes exactly `bytes` bytes at the cursor and moves it on. They may stay in memory until
    /// `flushChanges`.
    virtual void write(void const* buffer, int bytes) = 0;

    /// Brings all changes to the device.
    virtual void flushChanges() = 0;
};

} // namespace kelm
