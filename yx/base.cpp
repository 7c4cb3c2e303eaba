#include "yx/base.h"

#include <new>

namespace yx {

IBase::~IBase() = default;

CBase::~CBase() = default;

void CBase::addRef() const {
    m_refCount.fetch_add(1, std::memory_order_relaxed);
}

void CBase::release() const {
    if (m_refCount.fetch_sub(1, std::memory_order_acq_rel) == 1)
        const_cast<CBase*>(this)->deleteThis();
}

bool CBase::checkCastAllowed(std::type_info const&) const {
    return true;
}

void* CBase::operator new(std::size_t sizeBytes, RawNew const&) {
    return ::operator new(sizeBytes);
}

void CBase::operator delete(void* object, RawNew const&) {
    ::operator delete(object);
}

void CBase::operator delete(void* object) {
    ::operator delete(object);
}

void CBase::deleteThis() {
    delete this;
}

} // namespace yx
