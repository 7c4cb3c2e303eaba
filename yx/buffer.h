#pragma once

#include <algorithm>
#include <cassert>
#include <type_traits>

#include "yx/base.h"
#include "yx/memory.h"

namespace yx {

namespace detail {
/// Throws `CInvalidArgError`: "Invalid buffer size: " and the size.
[[noreturn]] YX_API void throwBadBufferSize(__int64 size);
} // namespace detail

/// A heap buffer of plain elements with two sizes: allocated (reserved) and used (content).
/// All sizes count elements. New elements are not defined until written.
template <class T>
class TBuffer : public CBase {
    static_assert(std::is_trivially_copyable_v<T>);

public:
    /// Empty, nothing allocated.
    TBuffer() = default;

    /// Reserves `allocated` elements, or `used` if that is more; `used` of -1 means all that are
    /// reserved. A size below 0 (but for that -1) is `CInvalidArgError`.
    TBuffer(int allocated, int used) {
        if (used < -1)
            detail::throwBadBufferSize(used);
        if (allocated < 0)
            detail::throwBadBufferSize(allocated);
        // At once: nobody would free the first of two allocations if the second one failed.
        ensureAllocated(std::max(allocated, used));
        m_used = used == -1 ? allocated : used;
        assert(m_used <= m_allocated && (m_data != nullptr) == (m_allocated > 0));
    }

    /// Copies content and used size.
    TBuffer(TBuffer const& other) : CBase() { assign(other); }

    /// Copies content and used size.
    TBuffer& operator=(TBuffer const& other) {
        assign(other);
        return *this;
    }

    ~TBuffer() override {
        // A derived class that must treat storage specially has done so in its own destructor.
        TBuffer::deleteData(m_data, m_allocated);
    }

    /// The same as the assignment. What is allocated here stays and is reused.
    void assign(TBuffer const& other) {
        if (this == &other)
            return;
        setUsed(other.m_used);
        copyMemory(m_data, other.m_data, sizeof(T) * static_cast<std::size_t>(other.m_used));
    }

    /// Sets the used size and grows the allocation when it must. Elements below the new size keep
    /// their values, also those that an earlier, smaller size had cut off. A size below 0 is
    /// `CInvalidArgError` and changes nothing.
    void setUsed(int used) {
        if (used < 0)
            detail::throwBadBufferSize(used);
        ensureAllocated(used);
        m_used = used;
        assert(m_used >= 0 && m_used <= m_allocated);
    }

    /// Guarantees room for `allocated` elements and leaves content and used size alone.
    void ensureAllocated(int allocated) {
        if (allocated < 0)
            detail::throwBadBufferSize(allocated);
        if (allocated <= m_allocated)
            return;
        T* const data = new T[static_cast<std::size_t>(allocated)];
        copyMemory(data, m_data, sizeof(T) * static_cast<std::size_t>(m_allocated));
        if (m_data)
            deleteData(m_data, m_allocated);
        m_data = data;
        m_allocated = allocated;
        assert(m_used <= m_allocated);
    }

    /// The elements, `getUsed()` of them content and `getAllocated()` writable; null while nothing
    /// is allocated. Valid until the buffer grows.
    T* getData() { return m_data; }
    T const* getData() const { return m_data; }

    /// The two sizes, in elements.
    int getUsed() const { return m_used; }
    int getAllocated() const { return m_allocated; }

protected:
    /// Gives storage of `allocated` elements back; `data` may be null.
    virtual void deleteData(T* data, int allocated) {
        static_cast<void>(allocated);
        delete[] data;
    }

    /// Gives all storage back through `deleteData`; the buffer is then empty.
    void freeStorage() {
        deleteData(m_data, m_allocated);
        m_data = nullptr;
        m_allocated = 0;
        m_used = 0;
    }

private:
    T* m_data = nullptr;
    int m_allocated = 0;
    int m_used = 0;
};

/// A buffer for key material: whatever storage it gives back holds only zero bytes by then.
template <class T>
class TCryptBuffer : public TBuffer<T> {
public:
    /// As for `TBuffer`.
    TCryptBuffer() = default;
    TCryptBuffer(int allocated, int used) : TBuffer<T>(allocated, used) {}
    TCryptBuffer(TCryptBuffer const&) = default;
    TCryptBuffer& operator=(TCryptBuffer const&) = default;

    ~TCryptBuffer() override { this->freeStorage(); }

protected:
    void deleteData(T* data, int allocated) override {
        initMemory(data, 0, sizeof(T) * static_cast<std::size_t>(allocated));
        TBuffer<T>::deleteData(data, allocated);
    }
};

/// A read-only view of part of a buffer. It holds no copy of the elements and no reference: the
/// buffer must outlive it and must not grow meanwhile.
template <class T>
class TConstBufferSlice {
public:
    /// `length` elements from `offset` on, all of which the buffer has.
    TConstBufferSlice(TBuffer<T> const* buffer, int offset, int length)
        : m_data(buffer->getData() ? buffer->getData() + offset : nullptr), m_length(length) {
        assert(offset >= 0 && length <= buffer->getAllocated() - offset);
    }

    /// The elements, and how many.
    T const* getData() const { return m_data; }
    int getLength() const { return m_length; }

private:
    T const* m_data;
    int m_length;
};

} // namespace yx
