#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <exception>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include "platform/linux/PosixError.h"
#include <ferrocore/CMutex.h>
#include <ferrocore/ThreadAnnotations.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/RunLoop.h>

namespace quill::platform {

namespace {

using Clock = std::chrono::steady_clock;

// Longer waits are cut to this, which keeps time arithmetic far from overflow.
constexpr double kLongestWait = 1e9;

Clock::duration toDuration(double seconds) {
    if (std::isnan(seconds) || seconds < 0) seconds = 0;
    seconds = std::min(seconds, kLongestWait);
    return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

void reportCallbackFailure(const char* what) noexcept {
    try {
        std::string line = "CRunLoop: a callback threw an exception";
        line += what ? std::string(": ") + what : std::string(" of unknown type");
        host().logToConsole(line);
    } catch (...) {
        // Nothing sensible is left to do when even reporting fails.
    }
}

template <class F, class... Args>
void invokeGuarded(const F& callback, Args... args) noexcept {
    try {
        if (callback) callback(args...);
    } catch (const std::exception& e) {
        reportCallbackFailure(e.what());
    } catch (...) {
        reportCallbackFailure(nullptr);
    }
}

short toPoll(unsigned events) {
    short result = 0;
    if (events & CRunLoop::kReadable) result |= POLLIN;
    if (events & CRunLoop::kWritable) result |= POLLOUT;
    return result;
}

unsigned fromPoll(short revents) {
    unsigned result = 0;
    if (revents & (POLLIN | POLLPRI)) result |= CRunLoop::kReadable;
    if (revents & POLLOUT) result |= CRunLoop::kWritable;
    if (revents & (POLLERR | POLLNVAL)) result |= CRunLoop::kError;
    if (revents & POLLHUP) result |= CRunLoop::kHangUp;
    return result;
}

}  // namespace

namespace detail {

struct RunLoopNode {
    enum class Kind { Timer, FileDescriptor };

    RunLoopNode(Kind k, std::weak_ptr<RunLoopState> loop) : kind(k), owner(std::move(loop)) {}

    const Kind kind;
    const std::weak_ptr<RunLoopState> owner;
    std::atomic<bool> active{true};
    // Touched on the loop's thread only.
    bool inCallback = false;

    // Descriptor sources.
    int fd = -1;
    std::atomic<unsigned> events{0};
    CRunLoop::FileDescriptorCallback fdCallback;

    // Timers. fireAt is set before the node is published and afterwards only
    // read and written on the loop's thread.
    Clock::time_point fireAt;
    Clock::duration interval{0};
    CRunLoop::TimerCallback timerCallback;
};

// Lock order: `mutex` is a leaf; no callback and no destructor of a callback
// runs while it is held.
struct RunLoopState {
    bool onLoopThread() const noexcept { return std::this_thread::get_id() == thread; }

    void wake() const noexcept {
        std::uint64_t one = 1;
        ssize_t written = write(wakeFd.get(), &one, sizeof one);
        static_cast<void>(written);  // a full counter already means "wake up"
    }
    void wakeFromOtherThread() const noexcept {
        if (!onLoopThread()) wake();
    }

    void removeNode(RunLoopNode* node) noexcept {
        std::shared_ptr<RunLoopNode> removed;  // destroyed after the lock is released
        {
            ferrocore::CAutoMutex lock(mutex);
            auto& list = node->kind == RunLoopNode::Kind::Timer ? timers : sources;
            auto it = std::find_if(list.begin(), list.end(), [&](const auto& n) { return n.get() == node; });
            if (it != list.end()) {
                removed = std::move(*it);
                list.erase(it);
            }
        }
        wakeFromOtherThread();
    }

    CRunLoop::Result run(Clock::time_point deadline, bool returnAfterSourceHandled, const std::function<bool()>* done,
                         bool* lastAnswer);
    bool pass(Clock::time_point deadline, const std::atomic<bool>& stopped);
    bool runTasks(const std::atomic<bool>& stopped);
    bool fireTimers(const std::atomic<bool>& stopped);

    const std::thread::id thread = std::this_thread::get_id();
    CFileDescriptor wakeFd;

    mutable ferrocore::CMutex mutex;
    // In the order added.
    std::vector<std::shared_ptr<RunLoopNode>> sources FERRO_GUARDED_BY(mutex);
    std::vector<std::shared_ptr<RunLoopNode>> timers FERRO_GUARDED_BY(mutex);
    std::deque<CRunLoop::Task> tasks FERRO_GUARDED_BY(mutex);
    // Stop flags of the runs in progress, innermost last.
    std::vector<std::atomic<bool>*> frames FERRO_GUARDED_BY(mutex);
};

CRunLoop::Result RunLoopState::run(Clock::time_point deadline, bool returnAfterSourceHandled,
                                   const std::function<bool()>* done, bool* lastAnswer) {
    std::atomic<bool> stopped{false};
    {
        ferrocore::CAutoMutex lock(mutex);
        frames.push_back(&stopped);
    }
    struct FramePop {
        RunLoopState& state;
        ~FramePop() {
            ferrocore::CAutoMutex lock(state.mutex);
            state.frames.pop_back();
        }
    } framePop{*this};

    for (;;) {
        bool handled = pass(deadline, stopped);
        if (done && (*lastAnswer = (*done)())) return CRunLoop::Result::Handled;
        if (stopped.load()) return CRunLoop::Result::Stopped;
        if (returnAfterSourceHandled && handled) return CRunLoop::Result::Handled;
        if (Clock::now() >= deadline) return CRunLoop::Result::TimedOut;
    }
}

// One wait and one round of serving: posted tasks, then ready descriptors in
// the order they were added, then due timers by firing time. Returns whether a
// callback ran.
bool RunLoopState::pass(Clock::time_point deadline, const std::atomic<bool>& stopped) {
    std::vector<std::shared_ptr<RunLoopNode>> watched;
    Clock::time_point wakeAt = deadline;
    {
        ferrocore::CAutoMutex lock(mutex);
        if (!tasks.empty()) wakeAt = Clock::time_point::min();
        watched.reserve(sources.size());
        for (const auto& node : sources) {
            if (node->active.load() && !node->inCallback) watched.push_back(node);
        }
        for (const auto& node : timers) {
            if (node->active.load() && !node->inCallback) wakeAt = std::min(wakeAt, node->fireAt);
        }
    }

    std::vector<pollfd> fds;
    fds.reserve(watched.size() + 1);
    fds.push_back({wakeFd.get(), POLLIN, 0});
    for (const auto& node : watched) fds.push_back({node->fd, toPoll(node->events.load()), 0});

    Clock::time_point now = Clock::now();
    auto wait =
        std::chrono::duration_cast<std::chrono::nanoseconds>(wakeAt > now ? wakeAt - now : Clock::duration::zero());
    timespec timeout{static_cast<time_t>(wait.count() / 1'000'000'000),
                     static_cast<long>(wait.count() % 1'000'000'000)};
    if (ppoll(fds.data(), fds.size(), &timeout, nullptr) < 0) {
        for (auto& fd : fds) fd.revents = 0;  // interrupted: nothing is known to be ready
    }
    if (fds[0].revents & POLLIN) {
        std::uint64_t count = 0;
        ssize_t got = read(wakeFd.get(), &count, sizeof count);
        static_cast<void>(got);  // EAGAIN only means another pass drained it
    }

    bool handled = runTasks(stopped);
    for (std::size_t i = 0; i < watched.size(); ++i) {
        if (stopped.load()) return handled;
        short revents = fds[i + 1].revents;
        RunLoopNode& node = *watched[i];
        if (!revents || !node.active.load()) continue;
        node.inCallback = true;
        invokeGuarded(node.fdCallback, node.fd, fromPoll(revents));
        node.inCallback = false;
        handled = true;
        if ((revents & POLLNVAL) && node.active.exchange(false)) removeNode(&node);
    }
    if (stopped.load()) return handled;
    return fireTimers(stopped) || handled;
}

// Runs the tasks that were queued when the round began; tasks they post wait
// for the next round.
bool RunLoopState::runTasks(const std::atomic<bool>& stopped) {
    std::size_t count;
    {
        ferrocore::CAutoMutex lock(mutex);
        count = tasks.size();
    }
    bool handled = false;
    for (std::size_t i = 0; i < count && !stopped.load(); ++i) {
        CRunLoop::Task task;
        {
            ferrocore::CAutoMutex lock(mutex);
            if (tasks.empty()) break;  // a nested run took them
            task = std::move(tasks.front());
            tasks.pop_front();
        }
        invokeGuarded(task);
        handled = true;
    }
    return handled;
}

bool RunLoopState::fireTimers(const std::atomic<bool>& stopped) {
    Clock::time_point now = Clock::now();
    std::vector<std::shared_ptr<RunLoopNode>> due;
    {
        ferrocore::CAutoMutex lock(mutex);
        for (const auto& node : timers) {
            if (node->active.load() && !node->inCallback && node->fireAt <= now) due.push_back(node);
        }
    }
    std::stable_sort(due.begin(), due.end(), [](const auto& a, const auto& b) { return a->fireAt < b->fireAt; });

    bool handled = false;
    for (const auto& node : due) {
        if (stopped.load()) break;
        if (!node->active.load()) continue;  // cancelled by an earlier callback
        if (node->interval > Clock::duration::zero()) {
            // Skip the firings a late loop missed.
            auto missed = (now - node->fireAt) / node->interval;
            node->fireAt += (missed + 1) * node->interval;
        } else if (node->active.exchange(false)) {
            removeNode(node.get());
        }
        node->inCallback = true;
        invokeGuarded(node->timerCallback);
        node->inCallback = false;
        handled = true;
    }
    return handled;
}

}  // namespace detail

// ------------------------------------------------------------------ handles

CRunLoopHandle& CRunLoopHandle::operator=(CRunLoopHandle&& other) noexcept {
    if (this != &other) {
        detachFromLoop();
        _node = std::move(other._node);
    }
    return *this;
}

CRunLoopHandle::~CRunLoopHandle() { detachFromLoop(); }

bool CRunLoopHandle::isActive() const noexcept {
    std::shared_ptr<detail::RunLoopNode> node = _node.lock();
    return node && node->active.load() && !node->owner.expired();
}

void CRunLoopHandle::detachFromLoop() noexcept {
    std::shared_ptr<detail::RunLoopNode> node = _node.lock();
    _node.reset();
    if (!node) return;
    node->active.store(false);
    if (std::shared_ptr<detail::RunLoopState> loop = node->owner.lock()) loop->removeNode(node.get());
}

void CFileDescriptorSource::setEvents(unsigned events) noexcept {
    std::shared_ptr<detail::RunLoopNode> node = _node.lock();
    if (!node || !node->active.load()) return;
    node->events.store(events);
    if (std::shared_ptr<detail::RunLoopState> loop = node->owner.lock()) loop->wakeFromOtherThread();
}

// ------------------------------------------------------------------ loop

CRunLoop& CRunLoop::current() {
    thread_local std::unique_ptr<CRunLoop> loop;
    if (!loop) loop.reset(new CRunLoop());
    return *loop;
}

CRunLoop::CRunLoop() : _state(std::make_shared<detail::RunLoopState>()) {
    _state->wakeFd.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!_state->wakeFd) throw std::system_error(posixError(errno), "CRunLoop: eventfd");
}

CRunLoop::~CRunLoop() {
    std::vector<std::shared_ptr<detail::RunLoopNode>> sources, timers;
    std::deque<Task> tasks;
    {
        ferrocore::CAutoMutex lock(_state->mutex);
        sources.swap(_state->sources);
        timers.swap(_state->timers);
        tasks.swap(_state->tasks);
    }
    for (const auto& node : sources) node->active.store(false);
    for (const auto& node : timers) node->active.store(false);
}

CRunLoop::Result CRunLoop::runFor(double seconds, bool returnAfterSourceHandled) {
    if (!_state->onLoopThread()) throw std::logic_error("CRunLoop::runFor: not the loop's thread");
    return _state->run(Clock::now() + toDuration(seconds), returnAfterSourceHandled, nullptr, nullptr);
}

bool CRunLoop::runUntil(const std::function<bool()>& done, double timeoutSeconds) {
    if (!_state->onLoopThread()) throw std::logic_error("CRunLoop::runUntil: not the loop's thread");
    bool answer = done();
    if (answer) return true;
    _state->run(Clock::now() + toDuration(timeoutSeconds), false, &done, &answer);
    return answer;
}

void CRunLoop::stop() {
    {
        ferrocore::CAutoMutex lock(_state->mutex);
        if (!_state->frames.empty()) _state->frames.back()->store(true);
    }
    _state->wakeFromOtherThread();
}

bool CRunLoop::isRunning() const {
    ferrocore::CAutoMutex lock(_state->mutex);
    return !_state->frames.empty();
}

void CRunLoop::post(Task task) {
    {
        ferrocore::CAutoMutex lock(_state->mutex);
        _state->tasks.push_back(std::move(task));
    }
    _state->wakeFromOtherThread();
}

CRunLoopTimer CRunLoop::addTimer(double delaySeconds, double intervalSeconds, TimerCallback callback) {
    auto node = std::make_shared<detail::RunLoopNode>(detail::RunLoopNode::Kind::Timer, _state);
    node->fireAt = Clock::now() + toDuration(delaySeconds);
    if (intervalSeconds > 0) node->interval = std::max(toDuration(intervalSeconds), Clock::duration(1));
    node->timerCallback = std::move(callback);
    {
        ferrocore::CAutoMutex lock(_state->mutex);
        _state->timers.push_back(node);
    }
    _state->wakeFromOtherThread();
    return CRunLoopTimer(node);
}

CFileDescriptorSource CRunLoop::addFileDescriptorSource(int fd, unsigned events, FileDescriptorCallback callback) {
    auto node = std::make_shared<detail::RunLoopNode>(detail::RunLoopNode::Kind::FileDescriptor, _state);
    node->fd = fd;
    node->events.store(events);
    node->fdCallback = std::move(callback);
    {
        ferrocore::CAutoMutex lock(_state->mutex);
        _state->sources.push_back(node);
    }
    _state->wakeFromOtherThread();
    return CFileDescriptorSource(node);
}

}  // namespace quill::platform
