// Mutexes: CMutex, CRecursiveMutex, the scoped lock CAutoMutex, and
// CConditionalMutex, a mutex joined to an integer value that threads can wait
// for; CStaticMutex and its scoped lock CAutoStaticMutex for data of static
// storage duration.
//
// The mutexes are shared objects so that several owners can hold one through
// a CMutexRef (a CRecursiveMutex is a CMutex and is held the same way), but
// unlike other shared objects they may also be plain members or locals: their
// destructors are public. Never make a CMutexRef to a mutex that is not on the
// heap. Destroying a mutex that is locked is undefined.
//
// lock() and unlock() are thin inline calls into POSIX threads. All mutexes
// here are meant to be shared between threads; that is their purpose. A
// thread that waits for a condition under CMutex or CStaticMutex uses
// std::condition_variable_any, which waits with any mutex that has lock()
// and unlock(); clang's analysis sees the mutex held across the wait.
#pragma once

#include <atomic>

#include <pthread.h>

#include <ferrocore/CSharedObject.h>
#include <ferrocore/ThreadAnnotations.h>
#include <ferrocore/export.h>

namespace ferrocore {

// A non-recursive mutex: a thread that locks it again while holding it
// deadlocks. Construction throws CException (kind 4) when the system refuses
// to make the mutex.
class FERRO_CAPABILITY("mutex") FERROCORE_EXPORT CMutex : public CSharedObject {
public:
    CMutex();
    ~CMutex() override;
    CMutex(const CMutex&) = delete;
    CMutex& operator=(const CMutex&) = delete;

    void lock() FERRO_ACQUIRE() { pthread_mutex_lock(&_mutex); }
    // Locks when that is possible without waiting; true when it did.
    bool tryLock() FERRO_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&_mutex) == 0; }
    // Requires that the calling thread holds the mutex.
    void unlock() FERRO_RELEASE() { pthread_mutex_unlock(&_mutex); }

protected:
    struct Recursive {};
    explicit CMutex(Recursive);

private:
    pthread_mutex_t _mutex;
};

// A mutex that the thread holding it may lock again; it is released when
// unlock() has been called as often as lock().
class FERRO_CAPABILITY("mutex") FERROCORE_EXPORT CRecursiveMutex final : public CMutex {
public:
    CRecursiveMutex();
    ~CRecursiveMutex() override;
};

using CMutexRef = CSharedObjectRef<CMutex>;

// Holds a mutex locked for its lifetime. The mutex must outlive the lock.
class FERRO_SCOPED_CAPABILITY CAutoMutex {
public:
    explicit CAutoMutex(CMutex& mutex) FERRO_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    ~CAutoMutex() FERRO_RELEASE() { _mutex.unlock(); }
    CAutoMutex(const CAutoMutex&) = delete;
    CAutoMutex& operator=(const CAutoMutex&) = delete;

private:
    CMutex& _mutex;
};

// A non-recursive mutex for data of static storage duration. Unlike CMutex it
// is no shared object: it is constant-initialised and trivially destructible,
// so it serves before main() and while other static objects are destroyed at
// exit, and a `constinit` object may hold it. Construction never fails.
class FERRO_CAPABILITY("mutex") CStaticMutex final {
public:
    constexpr CStaticMutex() noexcept = default;
    CStaticMutex(const CStaticMutex&) = delete;
    CStaticMutex& operator=(const CStaticMutex&) = delete;

    void lock() FERRO_ACQUIRE() { pthread_mutex_lock(&_mutex); }
    // Locks when that is possible without waiting; true when it did.
    bool tryLock() FERRO_TRY_ACQUIRE(true) { return pthread_mutex_trylock(&_mutex) == 0; }
    // Requires that the calling thread holds the mutex.
    void unlock() FERRO_RELEASE() { pthread_mutex_unlock(&_mutex); }

private:
    pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
};

// Holds a CStaticMutex locked for its lifetime. The mutex must outlive the
// lock.
class FERRO_SCOPED_CAPABILITY CAutoStaticMutex {
public:
    explicit CAutoStaticMutex(CStaticMutex& mutex) FERRO_ACQUIRE(mutex) : _mutex(mutex) { _mutex.lock(); }
    ~CAutoStaticMutex() FERRO_RELEASE() { _mutex.unlock(); }
    CAutoStaticMutex(const CAutoStaticMutex&) = delete;
    CAutoStaticMutex& operator=(const CAutoStaticMutex&) = delete;

private:
    CStaticMutex& _mutex;
};

// A non-recursive mutex joined to an integer value. The value changes only in
// unlockAndSetValue(), under the mutex, which then wakes every waiter; a
// waiter returns holding the mutex once it sees the value it waits for. A
// typical use: a worker announces that it has finished with
//   done.lockWithBlocking(); done.unlockAndSetValue(1);
// and others wait with
//   done.lockWhenValueSet(1); done.unlock();
//
// Construction throws CException (kind 4) when the system refuses to make the
// mutex or its condition variable.
class FERRO_CAPABILITY("mutex") FERROCORE_EXPORT CConditionalMutex final : public CSharedObject {
public:
    explicit CConditionalMutex(int initialValue = 0);
    ~CConditionalMutex() override;
    CConditionalMutex(const CConditionalMutex&) = delete;
    CConditionalMutex& operator=(const CConditionalMutex&) = delete;

    // Locks, waiting as long as another thread holds the mutex.
    void lockWithBlocking() FERRO_ACQUIRE();
    // Locks when that is possible without waiting; true when it did.
    bool tryLock() FERRO_TRY_ACQUIRE(true);
    // Waits until the value equals `value` and returns holding the mutex.
    void lockWhenValueSet(int value) FERRO_ACQUIRE();
    // The same, waiting at most `seconds` (measured on a monotonic clock; zero
    // or less tests once). Returns true holding the mutex when the value was
    // seen; false WITHOUT the mutex when the time ran out.
    bool lockWithTimeoutWhenValueSet(int value, double seconds) FERRO_TRY_ACQUIRE(true);
    // Requires the mutex: sets the value, unlocks, and wakes all waiters.
    void unlockAndSetValue(int value) FERRO_RELEASE();
    // Requires the mutex: unlocks without changing the value.
    void unlock() FERRO_RELEASE();

    // The value; may be read with or without the mutex (without it, the value
    // may change at any moment).
    int value() const noexcept { return _value.load(std::memory_order_acquire); }

private:
    pthread_mutex_t _mutex;
    pthread_cond_t _condition;
    std::atomic<int> _value;
};

using CConditionalMutexRef = CSharedObjectRef<CConditionalMutex>;

}  // namespace ferrocore
