#include <chrono>
#include <cmath>
#include <cstdio>
#include <exception>
#include <system_error>

#include <ferrocore/CException.h>
#include <ferrocore/CIntervalTimer.h>
#include <ferrocore/CMutex.h>
#include <ferrocore/Format.h>

namespace ferrocore {

namespace {
inline constexpr int kRunning = 0;
inline constexpr int kStopped = 1;
}  // namespace

// Shared by the timer object and its thread, so that a timer destroyed from
// inside its own callback leaves the thread something valid to finish with.
struct CIntervalTimer::State {
    explicit State(std::function<void()> f) : callback(std::move(f)) {}

    std::function<void()> callback;
    CConditionalMutex stopped{kRunning};
};

void CIntervalTimer::run(const std::shared_ptr<State>& state, double interval) {
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval));
    auto next = Clock::now() + period;
    while (true) {
        const double wait = std::chrono::duration<double>(next - Clock::now()).count();
        if (state->stopped.lockWithTimeoutWhenValueSet(kStopped, wait)) {
            state->stopped.unlock();
            return;
        }
        try {
            state->callback();
        } catch (const std::exception& e) {
            std::fprintf(stderr, "CIntervalTimer: callback failed: %s\n", e.what());
        } catch (...) {
            std::fprintf(stderr, "CIntervalTimer: callback failed with an unknown exception\n");
        }
        next += period;
        const auto now = Clock::now();
        if (next <= now) next = now + period;
    }
}

CIntervalTimer::CIntervalTimer(double intervalSeconds, std::function<void()> callback) : _interval(intervalSeconds) {
    if (!(intervalSeconds > 0) || !std::isfinite(intervalSeconds))
        throw CParamException(formatString("CIntervalTimer: invalid interval %g", intervalSeconds));
    _state = std::make_shared<State>(std::move(callback));
    try {
        _thread = std::thread(run, _state, intervalSeconds);
    } catch (const std::system_error& e) {
        throw CException(kExceptionKindSystemCall,
                         formatString("CIntervalTimer: can't start thread, error = %s", e.code().message()),
                         e.code().value());
    }
}

CIntervalTimer::~CIntervalTimer() { stop(); }

void CIntervalTimer::stop() {
    _state->stopped.lockWithBlocking();
    _state->stopped.unlockAndSetValue(kStopped);
    if (!_thread.joinable()) return;
    if (_thread.get_id() == std::this_thread::get_id())
        _thread.detach();
    else
        _thread.join();
}

bool CIntervalTimer::isRunning() const noexcept { return _state->stopped.value() == kRunning; }

}  // namespace ferrocore
