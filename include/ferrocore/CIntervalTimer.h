// A repeating timer with its own thread.
//
// The timer calls its callback every interval (in seconds), the first time
// one interval after construction, on a thread of its own, until stop() is
// called or the timer is destroyed. Calls never overlap: when a call takes
// longer than the interval, the ticks missed meanwhile are skipped and the
// next call comes one interval after the late one. An exception thrown by the
// callback is written to standard error and the timer goes on.
//
// Threads: stop() and the destructor may be called from any thread, the
// callback included. Called from another thread they wait for a running call
// to finish, so that afterwards the callback is never running; called from
// inside the callback they return at once and the timer thread ends when the
// callback returns (the callback must then not touch the timer object any
// more if it destroyed it).
#pragma once

#include <functional>
#include <memory>
#include <thread>

#include <ferrocore/export.h>

namespace ferrocore {

class FERROCORE_EXPORT CIntervalTimer final {
public:
    // Throws CParamException ("CIntervalTimer: invalid interval %g") unless the
    // interval is a positive number, and CException of kind 4 when the thread
    // cannot be started.
    CIntervalTimer(double intervalSeconds, std::function<void()> callback);
    ~CIntervalTimer();
    CIntervalTimer(const CIntervalTimer&) = delete;
    CIntervalTimer& operator=(const CIntervalTimer&) = delete;

    // Stops the timer; calling it again does nothing.
    void stop();
    bool isRunning() const noexcept;
    double interval() const noexcept { return _interval; }

private:
    struct State;
    static void run(const std::shared_ptr<State>& state, double interval);

    const double _interval;
    std::shared_ptr<State> _state;
    std::thread _thread;
};

}  // namespace ferrocore
