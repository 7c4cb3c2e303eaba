#include "yx/base.h"

#include <cassert>
#include <new>

namespace yx {

IBase::~IBase() = default;

CBase::~CBase() = default;

void CBase::addRef() const {
    [[maybe_unused]] auto const before = m_refCount.fetch_add(1, std::memory_order_relaxed);
    assert(before > 0 && "a reference to an object that is being destroyed");
}

void CBase::release() const {
    auto const before = m_refCount.fetch_sub(1, std::memory_order_acq_rel);
    assert(before > 0 && "more references given back than were taken");
    if (before == 1)
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
