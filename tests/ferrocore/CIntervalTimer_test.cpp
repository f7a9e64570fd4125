// CIntervalTimer: repeats, stops for good, and can be stopped or destroyed
// from inside its own callback without deadlock.
#include <atomic>
#include <chrono>
#include <limits>
#include <memory>
#include <stdexcept>
#include <thread>

#include <gtest/gtest.h>

#include <ferrocore/CException.h>
#include <ferrocore/CIntervalTimer.h>
#include <ferrocore/CMutex.h>

namespace ferrocore {
namespace {

// Generous bound for waits that normally end within milliseconds; reaching
// it means the timer is broken, not slow.
inline constexpr double kPatience = 30.0;

// A callback that throws every time still repeats, until stop().
TEST(IntervalTimerTest, RepeatsThroughExceptionsUntilStopped) {
    CConditionalMutex calls(0);
    CIntervalTimer timer(0.01, [&] {
        calls.lockWithBlocking();
        calls.unlockAndSetValue(calls.value() + 1);
        throw std::runtime_error("callback failure (expected by the test)");
    });
    EXPECT_TRUE(timer.isRunning());
    if (!calls.lockWithTimeoutWhenValueSet(3, kPatience)) FAIL() << "fewer than three calls";
    calls.unlock();
    timer.stop();
    EXPECT_FALSE(timer.isRunning());
    // After stop() has returned the callback never runs again.
    const int stoppedAt = calls.value();
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    EXPECT_EQ(calls.value(), stoppedAt);
    timer.stop();
}

TEST(IntervalTimerTest, StopFromInsideTheCallback) {
    std::atomic<int> calls{0};
    CIntervalTimer* self = nullptr;
    CConditionalMutex ready(0);
    CIntervalTimer timer(0.005, [&] {
        ready.lockWhenValueSet(1);  // until `self` is set
        ready.unlock();
        ++calls;
        self->stop();
    });
    self = &timer;
    ready.lockWithBlocking();
    ready.unlockAndSetValue(1);
    for (int i = 0; i < 3000 && timer.isRunning(); ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_FALSE(timer.isRunning());
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    EXPECT_EQ(calls, 1);
}

TEST(IntervalTimerTest, DestroyFromInsideTheCallback) {
    std::unique_ptr<CIntervalTimer> timer;
    CConditionalMutex state(0);  // 1: timer published, 2: destroyed by the callback
    timer = std::make_unique<CIntervalTimer>(0.005, [&] {
        state.lockWhenValueSet(1);
        state.unlock();
        timer.reset();
        state.lockWithBlocking();
        state.unlockAndSetValue(2);
    });
    state.lockWithBlocking();
    state.unlockAndSetValue(1);
    if (!state.lockWithTimeoutWhenValueSet(2, kPatience)) FAIL() << "the callback did not destroy the timer";
    state.unlock();
    EXPECT_FALSE(timer);
}

TEST(IntervalTimerTest, RefusesBadIntervals) {
    for (double interval : {0.0, -1.0, std::numeric_limits<double>::quiet_NaN()})
        EXPECT_THROW(CIntervalTimer(interval, [] {}), CParamException) << interval;
}

}  // namespace
}  // namespace ferrocore
