#include "yx/mutex.h"

namespace yx {

void CMutex::lock() {
    m_mutex.lock();
}

void CMutex::unlock() {
    m_mutex.unlock();
}

CMutexLock::CMutexLock(IMutex* mutex) : m_mutex(mutex) {
    m_mutex->lock();
}

CMutexLock::~CMutexLock() {
    m_mutex->unlock();
}

} // namespace yx
