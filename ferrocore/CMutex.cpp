#include <cerrno>
#include <cmath>
#include <ctime>

#include <ferrocore/CException.h>
#include <ferrocore/CMutex.h>
#include <ferrocore/Format.h>

namespace ferrocore {

namespace {

[[noreturn]] void throwInitFailure(const char* what, int error) {
    throw CException(kExceptionKindSystemCall, formatString("%s failed, error = %s", what, errorText(error)), error);
}

void initMutex(pthread_mutex_t* mutex, int type) {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, type);
    const int rc = pthread_mutex_init(mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    if (rc != 0) throwInitFailure("pthread_mutex_init", rc);
}

// The monotonic time `seconds` from now.
timespec deadlineAfter(double seconds) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    // Anything longer than about 30 years is as good as forever.
    if (!(seconds > 0)) seconds = 0;
    if (seconds > 1e9) seconds = 1e9;
    double whole = 0;
    const double fraction = std::modf(seconds, &whole);
    timespec deadline;
    deadline.tv_sec = now.tv_sec + static_cast<time_t>(whole);
    deadline.tv_nsec = now.tv_nsec + static_cast<long>(fraction * 1e9);
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    return deadline;
}

}  // namespace

CMutex::CMutex() { initMutex(&_mutex, PTHREAD_MUTEX_DEFAULT); }

CMutex::CMutex(Recursive) { initMutex(&_mutex, PTHREAD_MUTEX_RECURSIVE); }

CMutex::~CMutex() { pthread_mutex_destroy(&_mutex); }

CRecursiveMutex::CRecursiveMutex() : CMutex(Recursive{}) {}

CRecursiveMutex::~CRecursiveMutex() = default;

CConditionalMutex::CConditionalMutex(int initialValue) : _value(initialValue) {
    initMutex(&_mutex, PTHREAD_MUTEX_DEFAULT);
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    const int rc = pthread_cond_init(&_condition, &attributes);
    pthread_condattr_destroy(&attributes);
    if (rc != 0) {
        pthread_mutex_destroy(&_mutex);
        throwInitFailure("pthread_cond_init", rc);
    }
}

CConditionalMutex::~CConditionalMutex() {
    pthread_cond_destroy(&_condition);
    pthread_mutex_destroy(&_mutex);
}

void CConditionalMutex::lockWithBlocking() { pthread_mutex_lock(&_mutex); }

bool CConditionalMutex::tryLock() { return pthread_mutex_trylock(&_mutex) == 0; }

void CConditionalMutex::lockWhenValueSet(int value) {
    pthread_mutex_lock(&_mutex);
    while (_value.load(std::memory_order_relaxed) != value) pthread_cond_wait(&_condition, &_mutex);
}

bool CConditionalMutex::lockWithTimeoutWhenValueSet(int value, double seconds) {
    const timespec deadline = deadlineAfter(seconds);
    pthread_mutex_lock(&_mutex);
    while (_value.load(std::memory_order_relaxed) != value) {
        if (pthread_cond_timedwait(&_condition, &_mutex, &deadline) == ETIMEDOUT) {
            if (_value.load(std::memory_order_relaxed) == value) break;
            pthread_mutex_unlock(&_mutex);
            return false;
        }
    }
    return true;
}

void CConditionalMutex::unlockAndSetValue(int value) {
    _value.store(value, std::memory_order_release);
    // Wake before unlocking: a woken waiter may destroy this object as soon as
    // it has the mutex, so nothing here may touch it after the unlock.
    pthread_cond_broadcast(&_condition);
    pthread_mutex_unlock(&_mutex);
}

void CConditionalMutex::unlock() { pthread_mutex_unlock(&_mutex); }

}  // namespace ferrocore
