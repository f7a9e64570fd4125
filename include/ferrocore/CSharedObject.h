// Intrusive, thread-safe reference counting.
//
// A CSharedObject keeps its own reference count; CSharedObjectRef<T> is the
// RAII handle that holds one reference: copying a handle adds a reference,
// destroying or resetting it drops one, and the object deletes itself when the
// last reference goes. Nobody retains or releases by hand, and because the
// destructor is protected an object cannot be deleted behind its holders'
// backs.
//
// A new object starts with no references; the first handle made from it (by
// makeShared() or CSharedObjectRef's pointer constructor) owns it. Because the
// count lives in the object, a handle can also be made from a bare pointer to
// an object that is already held (for example `this` inside a member
// function). Do not make a handle to an object inside its own constructor:
// when that handle goes away the count drops to zero and the half-built object
// is deleted.
//
// Threads: the count is atomic, so handles to one object may be copied and
// dropped on any number of threads at once. A single handle variable is not
// itself synchronised (like any other variable), and what the object itself
// allows across threads is for each class to say.
#pragma once

#include <atomic>
#include <concepts>
#include <cstddef>
#include <string>
#include <utility>

#include <ferrocore/export.h>

namespace ferrocore {

class FERROCORE_EXPORT CSharedObject {
public:
    CSharedObject(const CSharedObject&) = delete;
    CSharedObject& operator=(const CSharedObject&) = delete;

    // The current number of references; for tests and diagnostics only (it may
    // change at any moment on another thread).
    long retainCount() const noexcept { return _references.load(std::memory_order_relaxed); }

protected:
    CSharedObject() noexcept = default;
    // Called by the last release, never directly.
    virtual ~CSharedObject();

private:
    template <class T>
    friend class CSharedObjectRef;

    void retain() const noexcept { _references.fetch_add(1, std::memory_order_relaxed); }
    void release() const noexcept {
        if (_references.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    mutable std::atomic<long> _references{0};
};

// Holds one reference to a T (a class derived, possibly virtually, from
// CSharedObject), or nothing. T may be const-qualified.
template <class T>
class CSharedObjectRef {
public:
    constexpr CSharedObjectRef() noexcept = default;
    constexpr CSharedObjectRef(std::nullptr_t) noexcept {}
    // Takes a reference to `object` (which may be null).
    explicit CSharedObjectRef(T* object) noexcept : _object(object) { retainObject(); }

    CSharedObjectRef(const CSharedObjectRef& other) noexcept : _object(other._object) { retainObject(); }
    CSharedObjectRef(CSharedObjectRef&& other) noexcept : _object(std::exchange(other._object, nullptr)) {}
    template <class U>
    requires std::convertible_to<U*, T*> CSharedObjectRef(const CSharedObjectRef<U>& other)
    noexcept : _object(other.get()) { retainObject(); }
    template <class U>
    requires std::convertible_to<U*, T*> CSharedObjectRef(CSharedObjectRef<U>&& other)
    noexcept : _object(other.get()) {
        retainObject();
        other.reset();
    }
    ~CSharedObjectRef() { releaseObject(); }

    CSharedObjectRef& operator=(CSharedObjectRef other) noexcept {
        std::swap(_object, other._object);
        return *this;
    }

    T* get() const noexcept { return _object; }
    T* operator->() const noexcept { return _object; }
    T& operator*() const noexcept { return *_object; }
    explicit operator bool() const noexcept { return _object != nullptr; }

    // Drops the reference; the handle is null afterwards.
    void reset() noexcept {
        releaseObject();
        _object = nullptr;
    }

    friend bool operator==(const CSharedObjectRef& ref, std::nullptr_t) noexcept { return !ref._object; }

private:
    void retainObject() const noexcept {
        if (_object) static_cast<const CSharedObject*>(_object)->retain();
    }
    void releaseObject() const noexcept {
        if (_object) static_cast<const CSharedObject*>(_object)->release();
    }

    T* _object = nullptr;
};

// Makes a new T from `args` and returns the first reference to it.
template <class T, class... Args>
CSharedObjectRef<T> makeShared(Args&&... args) {
    return CSharedObjectRef<T>(new T(std::forward<Args>(args)...));
}

// Holders compare by identity only through get(); there is deliberately no
// operator== between two handles, so that nobody mistakes it for value
// equality of strings or URLs.

// Description of a held object for "%@" in formatString(): that of the object,
// or "(null)" for an empty handle.
template <class T>
requires requires(const T& object) {
    { ferrocoreDescription(object) } -> std::convertible_to<std::string>;
}
std::string ferrocoreDescription(const CSharedObjectRef<T>& ref) {
    return ref ? std::string(ferrocoreDescription(*ref)) : std::string("(null)");
}

}  // namespace ferrocore
