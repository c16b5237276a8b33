// Counted objects and the handle that holds them.
//
// Objects handed across the interface between host and plug-in derive from
// iObject and are held by Qv::Ptr. The count is changed through the atomic
// service of the OS layer, so a handle may be copied on any thread.
#pragma once

#include <cstddef>
#include <utility>

#include "host/OSCore.h"

namespace Qv {

class InternalRefCount {
  public:
    InternalRefCount() = default;
    InternalRefCount(const InternalRefCount&) {}
    InternalRefCount& operator=(const InternalRefCount&) { return *this; }
    virtual ~InternalRefCount() = default;

    void incRefCount() const { QvOS::atomicIncrement(&refs_); }
    // Destroys the object when the last reference goes.
    void decRefCount() const {
        if (QvOS::atomicDecrement(&refs_) == 0) delete this;
    }
    int refCount() const { return refs_; }

  private:
    mutable int refs_ = 0;
};

template <typename T>
class Ptr {
  public:
    Ptr() = default;
    Ptr(std::nullptr_t) {}
    Ptr(T* p) : p_(p) { acquire(); }
    Ptr(const Ptr& o) : p_(o.p_) { acquire(); }
    Ptr(Ptr&& o) noexcept : p_(std::exchange(o.p_, nullptr)) {}
    template <typename U>
    Ptr(const Ptr<U>& o) : p_(o.get()) {
        acquire();
    }
    ~Ptr() { release(); }

    Ptr& operator=(Ptr o) noexcept {
        std::swap(p_, o.p_);
        return *this;
    }

    T* get() const { return p_; }
    T* operator->() const { return p_; }
    T& operator*() const { return *p_; }
    explicit operator bool() const { return p_ != nullptr; }
    bool operator==(const Ptr& o) const { return p_ == o.p_; }
    bool operator==(std::nullptr_t) const { return p_ == nullptr; }
    void reset() { Ptr().swap(*this); }
    void swap(Ptr& o) noexcept { std::swap(p_, o.p_); }

  private:
    void acquire() {
        if (p_) p_->incRefCount();
    }
    void release() {
        if (p_) p_->decRefCount();
    }
    T* p_ = nullptr;
};

// A counted handle that is the result of a run-time cast of another one; null
// when the object is not a T.
template <typename T, typename U>
Ptr<T> dynamic_ptr_cast(const Ptr<U>& p) {
    return Ptr<T>(dynamic_cast<T*>(p.get()));
}

}  // namespace Qv

// The root of the host's interfaces: counted, with virtual bases so that an
// object may implement several interfaces and still have one count.
class iVirtual {
  public:
    virtual ~iVirtual() = default;
};

class iObject : public virtual Qv::InternalRefCount, public virtual iVirtual {};
