// The framework's counted pointers: RCShdPtr / RCStrongPtr hold any object with
// addRef() and removeRef(); RCBase<LkCounter<int>> is the atomically counted base that deletes
// itself at zero. Going through a null pointer raises RCExUtil::throwExNullPtr.
#pragma once

#include <atomic>
#include <typeinfo>
#include <utility>

#include "ZtCore.h"

namespace Zt {

template <class T>
class LkCounter {
public:
    T increment() { return _value.fetch_add(1, std::memory_order_relaxed) + 1; }
    T decrement() { return _value.fetch_sub(1, std::memory_order_acq_rel) - 1; }
    T get() const { return _value.load(std::memory_order_acquire); }
private:
    std::atomic<T> _value{0};
};

template <class Counter>
class RCBase {
public:
    RCBase() = default;
    RCBase(const RCBase&) {}
    RCBase& operator=(const RCBase&) { return *this; }
    virtual ~RCBase() = default;
    void addRef() const { _refCount.increment(); }
    void removeRef() const {
        if (_refCount.decrement() == 0) delete this;
    }
    int getRefCount() const { return _refCount.get(); }
private:
    mutable Counter _refCount;
};

template <class T>
class RCShdPtr {
public:
    using element_type = T;
    RCShdPtr() = default;
    RCShdPtr(std::nullptr_t) {}
    RCShdPtr(T* p) : _p(p) { if (_p) _p->addRef(); }
    RCShdPtr(const RCShdPtr& o) : _p(o._p) { if (_p) _p->addRef(); }
    RCShdPtr(RCShdPtr&& o) noexcept : _p(o._p) { o._p = nullptr; }
    template <class U, class = std::enable_if_t<std::is_convertible_v<U*, T*>>>
    RCShdPtr(const RCShdPtr<U>& o) : _p(o.get()) { if (_p) _p->addRef(); }
    ~RCShdPtr() { if (_p) _p->removeRef(); }

    // Takes the new reference first and releases the old one afterwards; self-assignment is a no-op.
    RCShdPtr& operator=(const RCShdPtr& o) { reset(o._p); return *this; }
    RCShdPtr& operator=(RCShdPtr&& o) noexcept {
        if (this != &o) { T* old = _p; _p = o._p; o._p = nullptr; if (old) old->removeRef(); }
        return *this;
    }
    void reset(T* p = nullptr) {
        if (p == _p) return;
        if (p) p->addRef();
        T* old = _p;
        _p = p;
        if (old) old->removeRef();
    }

    T* get() const { return _p; }
    T* operator->() const { if (!_p) RCExUtil::throwExNullPtr(typeid(T).name()); return _p; }
    T& operator*() const { if (!_p) RCExUtil::throwExNullPtr(typeid(T).name()); return *_p; }
    explicit operator bool() const { return _p != nullptr; }
    bool isNull() const { return _p == nullptr; }
    template <class U> bool operator==(const RCShdPtr<U>& o) const { return _p == o.get(); }
    bool operator==(std::nullptr_t) const { return _p == nullptr; }

private:
    T* _p = nullptr;
};

template <class T>
using RCStrongPtr = RCShdPtr<T>;

// Unchecked conversion: the check phase has proved the type.
template <class U, class T>
RCShdPtr<U> rcStaticCast(const RCShdPtr<T>& p) { return RCShdPtr<U>(static_cast<U*>(p.get())); }

// Null on a class mismatch.
template <class U, class T>
RCShdPtr<U> rcDynamicCast(const RCShdPtr<T>& p) { return RCShdPtr<U>(dynamic_cast<U*>(p.get())); }

// The framework's checked cast: null stays null; a pointee of another class raises the cast failure.
template <class U, class T>
RCShdPtr<U> rcCheckedCast(const RCShdPtr<T>& p) {
    if (!p) return RCShdPtr<U>();
    U* u = dynamic_cast<U*>(p.get());
    if (!u) RCExUtil::throwExCastFailed(typeid(*p.get()).name(), typeid(U).name());
    return RCShdPtr<U>(u);
}

}  // namespace Zt
