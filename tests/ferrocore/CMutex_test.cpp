// Mutexes and the conditional mutex: mutual exclusion (of the static mutex
// too), recursion, time-outs that return without the lock, and wake-ups
// across threads.
#include <atomic>
#include <memory>
#include <thread>
#include <type_traits>
#include <vector>

#include <gtest/gtest.h>

#include <ferrocore/CMutex.h>

namespace ferrocore {
namespace {

// Whether another thread could take the mutex right now.
template <class M>
bool lockableFromOtherThread(M& mutex) {
    bool taken = false;
    std::thread([&] {
        if (mutex.tryLock()) {
            taken = true;
            mutex.unlock();
        }
    }).join();
    return taken;
}

// A recursive mutex is held until the last unlock. Locking a mutex that the
// thread holds is what clang's lock analysis reports as a fault, so the
// analysis is off here.
void expectHeldUntilLastUnlock(CMutex& recursive) FERRO_NO_THREAD_SAFETY_ANALYSIS {
    recursive.lock();
    {
        CAutoMutex again(recursive);
        EXPECT_TRUE(recursive.tryLock());
        recursive.unlock();
    }
    EXPECT_FALSE(lockableFromOtherThread(recursive));
    recursive.unlock();
    EXPECT_TRUE(lockableFromOtherThread(recursive));
}

// Eight threads count under the scoped lock `Lock`; a lost increment shows a
// mutex that does not exclude. Then the mutex is taken by this thread only
// while the lock lives.
template <class Lock, class M>
void expectExclusion(M& mutex) {
    long counter = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 5000; ++i) {
                Lock lock(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& t : threads) t.join();
    EXPECT_EQ(counter, 8 * 5000);

    {
        Lock lock(mutex);
        EXPECT_FALSE(lockableFromOtherThread(mutex));
    }
    EXPECT_TRUE(lockableFromOtherThread(mutex));
}

constinit CStaticMutex gStaticMutex;
static_assert(std::is_trivially_destructible_v<CStaticMutex>);

TEST(MutexTest, AutoMutexExcludesOtherThreadsAndRecursiveOnesCount) {
    CMutexRef mutex = makeShared<CMutex>();
    expectExclusion<CAutoMutex>(*mutex);
    expectExclusion<CAutoStaticMutex>(gStaticMutex);

    CMutexRef recursive = makeShared<CRecursiveMutex>();
    expectHeldUntilLastUnlock(*recursive);
}

TEST(ConditionalMutexTest, TimeoutReturnsFalseWithoutTheLock) {
    CConditionalMutex condition(0);
    for (double timeout : {0.05, 0.0, -3.0}) {
        EXPECT_FALSE(condition.lockWithTimeoutWhenValueSet(1, timeout)) << timeout;
        EXPECT_TRUE(lockableFromOtherThread(condition)) << timeout;
    }

    // A value that is already set is taken at once, even with no time at all,
    // and the caller then holds the lock.
    if (!condition.lockWithTimeoutWhenValueSet(0, 0)) FAIL() << "a set value was not taken at once";
    EXPECT_FALSE(lockableFromOtherThread(condition));
    condition.unlock();
    EXPECT_EQ(condition.value(), 0);
}

TEST(ConditionalMutexTest, UnlockAndSetValueWakesEveryWaiter) {
    CConditionalMutexRef condition = makeShared<CConditionalMutex>(0);
    std::atomic<int> woken{0};
    std::atomic<int> sawValue{0};
    std::vector<std::thread> waiters;
    for (int t = 0; t < 3; ++t) {
        waiters.emplace_back([&] {
            condition->lockWhenValueSet(1);
            sawValue += condition->value();
            ++woken;
            condition->unlock();
        });
    }
    std::thread timedWaiter([&] {
        if (condition->lockWithTimeoutWhenValueSet(1, 60.0)) {
            ++woken;
            condition->unlock();
        }
    });
    // An unlock that leaves the value alone wakes nobody for good.
    condition->lockWithBlocking();
    condition->unlock();
    EXPECT_EQ(woken, 0);

    condition->lockWithBlocking();
    condition->unlockAndSetValue(1);
    for (std::thread& t : waiters) t.join();
    timedWaiter.join();
    EXPECT_EQ(woken, 4);
    EXPECT_EQ(sawValue, 3);
    EXPECT_EQ(condition->value(), 1);
}

TEST(ConditionalMutexTest, WaiterMayDestroyTheMutexOnceWoken) {
    // The way a task's waiter meets its monitor thread: the worker announces
    // its end with unlockAndSetValue(1), and the owner, once it has seen the
    // value, may destroy the mutex at once while the worker is still returning
    // from that call. Under ThreadSanitizer a wake-up sent after the unlock
    // shows here as a race with the destruction.
    for (int round = 0; round < 200; ++round) {
        auto condition = std::make_unique<CConditionalMutex>(0);
        CConditionalMutex* shared = condition.get();
        int result = 0;
        std::thread worker([&result, shared] {
            result = 42;
            shared->lockWithBlocking();
            shared->unlockAndSetValue(1);
        });
        // Polling the value first makes the owner arrive while the worker is
        // still inside unlockAndSetValue.
        while (condition->value() != 1) std::this_thread::yield();
        condition->lockWhenValueSet(1);
        EXPECT_EQ(result, 42);
        condition->unlock();
        condition.reset();
        worker.join();
    }
}

}  // namespace
}  // namespace ferrocore
