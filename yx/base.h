#pragma once

#include <atomic>
#include <cstddef>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "yx/export.h"

#if !defined(_MSC_VER)
using __int64 = long long;
#endif

namespace yx {

/// The root interface of every framework object: a reference count and a gate for downcasts.
/// Interfaces derive from it virtually, so that an object with several of them has one count.
class YX_API IBase {
public:
    virtual ~IBase();

    /// Adds one reference. Safe against concurrent callers on the same object.
    virtual void addRef() const = 0;

    /// Gives one reference back; the last one ends the object. Safe against concurrent callers.
    virtual void release() const = 0;

    /// Whether `yx::cast` may try to cast this object to `type`.
    virtual bool checkCastAllowed(std::type_info const& type) const = 0;

protected:
    IBase() = default;
    IBase(IBase const&) = default;
    IBase& operator=(IBase const&) = default;
};

/// The reference-counted implementation of `IBase`.
///
/// An object made by `new (RawNew)` starts with one reference, which the first `P` takes over
/// (`makeObject` does both steps). An object on the stack or inside another one is fine as long
/// as nobody gives its last reference back.
///
/// A destructor must not make a `P` to its own object, nor pass the object to something that does:
/// that reference would be the only one, and giving it back would destroy the object again, without
/// end. Debug builds assert it.
class YX_API CBase : public virtual IBase {
public:
    /// Tag for the one `operator new` that makes heap objects.
    struct RawNew {};

    CBase() = default;

    /// The count belongs to the object and is not copied.
    CBase(CBase const&) : IBase() {}
    CBase& operator=(CBase const&) { return *this; }

    ~CBase() override;

    void addRef() const override;
    void release() const override;

    /// Answers true for every type.
    bool checkCastAllowed(std::type_info const& type) const override;

    /// Heap objects are made with the tag alone; see `makeObject`.
    static void* operator new(std::size_t sizeBytes, RawNew const&);
    static void operator delete(void* object, RawNew const&);
    static void operator delete(void* object);

protected:
    /// Called by `release` when the count reaches zero; ends the object.
    virtual void deleteThis();

private:
    mutable std::atomic<int> m_refCount{1};
};

/// Intrusive smart pointer to a `T` that derives from `IBase`; may be null.
template <class T>
class P {
public:
    /// Null.
    P() noexcept = default;
    P(std::nullptr_t) noexcept {}

    /// Adds a reference to `object`, which may be null.
    P(T* object) : m_object(object) {
        if (m_object)
            m_object->addRef();
    }

    /// A copy adds a reference, a move hands it over.
    P(P const& other) : P(other.m_object) {}
    P(P&& other) noexcept : m_object(std::exchange(other.m_object, nullptr)) {}

    /// Implicit upcast.
    template <class U>
    requires std::is_convertible_v<U*, T*> P(P<U> const& other) : P(static_cast<T*>(other.get())) {}

    /// Implicit upcast that hands the reference over without touching the count.
    template <class U>
    requires std::is_convertible_v<U*, T*> P(P<U>&& other)
    noexcept : m_object(other.detach()) {}

    ~P() {
        if (m_object)
            m_object->release();
    }

    /// The new object gains its reference before the old one loses one, so self-assignment is safe.
    P& operator=(P const& other) {
        P(other).swap(*this);
        return *this;
    }

    /// Hands the reference over.
    P& operator=(P&& other) noexcept {
        P(std::move(other)).swap(*this);
        return *this;
    }

    /// Takes over a reference that the caller owns.
    static P adopt(T* object) noexcept {
        P result;
        result.m_object = object;
        return result;
    }

    /// Hands this pointer's reference to the caller and becomes null.
    T* detach() noexcept { return std::exchange(m_object, nullptr); }

    /// The object, null if there is none; the pointer keeps its reference.
    T* get() const noexcept { return m_object; }
    T* operator->() const noexcept { return m_object; }
    T& operator*() const noexcept { return *m_object; }

    /// Whether there is an object.
    explicit operator bool() const noexcept { return m_object != nullptr; }

    /// Gives the reference back and becomes null.
    void reset() { P().swap(*this); }

    /// Exchanges the objects without touching their counts.
    void swap(P& other) noexcept { std::swap(m_object, other.m_object); }

private:
    T* m_object = nullptr;
};

template <class T, class U>
bool operator==(P<T> const& left, P<U> const& right) noexcept {
    return left.get() == right.get();
}

template <class T>
bool operator==(P<T> const& left, std::nullptr_t) noexcept {
    return left.get() == nullptr;
}

/// Makes a heap object and returns the pointer that took its first reference.
template <class T, class... Args>
P<T> makeObject(Args&&... args) {
    return P<T>::adopt(new (CBase::RawNew{}) T(std::forward<Args>(args)...));
}

/// Gated downcast: asks the object's `checkCastAllowed` first, and yields an empty pointer on a
/// refusal, on a type that does not fit, and on null. Never throws.
template <class Derived, class Base>
P<Derived> cast(P<Base> const& object) {
    if (!object || !object->checkCastAllowed(typeid(Derived)))
        return {};
    return P<Derived>(dynamic_cast<Derived*>(object.get()));
}

} // namespace yx
