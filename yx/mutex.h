#pragma once

#include <mutex>

#include "yx/base.h"

namespace yx {

/// Something that can be locked.
class YX_API IMutex : public virtual IBase {
public:
    /// Waits until it is free, then holds it.
    virtual void lock() = 0;

    /// Releases it. The caller must hold it.
    virtual void unlock() = 0;
};

/// A mutex that one thread at a time may hold. It is not recursive.
class YX_API CMutex : public CBase, public virtual IMutex {
public:
    void lock() override;
    void unlock() override;

private:
    std::mutex m_mutex;
};

/// Holds a mutex for as long as it lives.
class YX_API CMutexLock {
public:
    /// Locks `mutex`, which must not be null, and shares its ownership.
    explicit CMutexLock(IMutex* mutex);
    CMutexLock(CMutexLock const&) = delete;
    CMutexLock& operator=(CMutexLock const&) = delete;
    ~CMutexLock();

private:
    P<IMutex> m_mutex;
};

} // namespace yx
