#pragma once

#include "kelm/export.h"
#include "yx/base.h"

namespace kelm {

/// A virtual disk as a positioned byte space, for hosts that hold disks of several kinds behind one
/// interface. Sizes and positions are in bytes. The library's own disks do not derive from it.
class KELM_API IDisk : public virtual yx::IBase {
public:
    virtual __int64 getSizeBytes() const = 0;
    virtual __int64 getPosition() const = 0;
    virtual void seek(__int64 position) = 0;
    virtual void read(void* buffer, int bytes) = 0;
    virtual void write(void const* buffer, int bytes) = 0;
    virtual void flushChanges() = 0;
};

} // namespace kelm
