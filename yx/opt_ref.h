#pragma once

#include <cstddef>

namespace yx {

/// A reference to a value that may be absent. It holds no copy: the value must outlive it.
template <class T>
class TConstOptRef {
public:
    /// Absent.
    TConstOptRef() = default;
    TConstOptRef(std::nullptr_t) {}

    /// Refers to `value`.
    TConstOptRef(T const& value) : m_value(&value) {}

    /// Refers to `*value`; absent for null.
    TConstOptRef(T const* value) : m_value(value) {}

    /// Whether there is a value.
    bool isPresent() const { return m_value != nullptr; }
    explicit operator bool() const { return m_value != nullptr; }

    /// The value must be present.
    T const& operator*() const { return *m_value; }
    T const* operator->() const { return m_value; }

    /// A pointer to the value; null if absent.
    T const* get() const { return m_value; }

private:
    T const* m_value = nullptr;
};

} // namespace yx
