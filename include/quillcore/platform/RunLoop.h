// Per-thread run loops: a thread waits in its loop for timers, file
// descriptors and work posted from other threads, and serves them as they
// become ready.
//
// Every thread has at most one loop, made on first use by CRunLoop::current()
// and destroyed when the thread ends (sources and posted work still pending are
// then dropped without running).
//
// Threads. Running a loop (runFor, runOnce, runUntil) is for its own thread
// only. post(), stop(), addTimer(), addFileDescriptorSource() and the handles'
// remove()/cancel() are safe from any thread, but only while the loop's thread
// is alive: a thread that posts to another thread's loop must know that the
// other thread has not ended. Callbacks always run on the loop's thread, never
// concurrently with each other.
//
// Re-entrancy. A callback may run its own loop again (a nested run). While a
// timer's or a descriptor source's callback is running, the nested run does
// not call that same callback again; other sources are served normally.
//
// Exceptions. No exception leaves a callback: the loop catches it and writes
// one line to the console log (through the host seam), then carries on.
#pragma once

#include <functional>
#include <memory>
#include <utility>

#include <quillcore/platform/export.h>

namespace quill::platform {

namespace detail {
struct RunLoopNode;
struct RunLoopState;
}  // namespace detail

// Base of the handles to a loop's timers and sources. Destroying the handle
// removes what it refers to; a moved-from or default handle refers to nothing.
class QUILL_PLATFORM_EXPORT CRunLoopHandle {
public:
    CRunLoopHandle() noexcept = default;
    CRunLoopHandle(const CRunLoopHandle&) = delete;
    CRunLoopHandle& operator=(const CRunLoopHandle&) = delete;
    CRunLoopHandle(CRunLoopHandle&& other) noexcept = default;
    CRunLoopHandle& operator=(CRunLoopHandle&& other) noexcept;
    ~CRunLoopHandle();

    // Whether the timer or source is still in its loop: false after removal,
    // after a one-shot timer started its callback, after the loop ended, and
    // for an empty handle.
    bool isActive() const noexcept;

protected:
    explicit CRunLoopHandle(std::weak_ptr<detail::RunLoopNode> node) noexcept : _node(std::move(node)) {}
    // Takes the node out of its loop. Once this returns, the loop will not
    // start the callback again when called on the loop's thread; called from
    // another thread, a callback that the loop has already started may still
    // be running. Safe to call from the node's own callback.
    void detachFromLoop() noexcept;

    std::weak_ptr<detail::RunLoopNode> _node;
};

// A one-shot or repeating timer.
class QUILL_PLATFORM_EXPORT CRunLoopTimer final : public CRunLoopHandle {
public:
    CRunLoopTimer() noexcept = default;
    void cancel() noexcept { detachFromLoop(); }

private:
    friend class CRunLoop;
    explicit CRunLoopTimer(std::weak_ptr<detail::RunLoopNode> node) noexcept : CRunLoopHandle(std::move(node)) {}
};

// A file descriptor watched for readiness. The loop never closes the
// descriptor; remove the source before closing it.
class QUILL_PLATFORM_EXPORT CFileDescriptorSource final : public CRunLoopHandle {
public:
    CFileDescriptorSource() noexcept = default;
    void remove() noexcept { detachFromLoop(); }
    // Changes the events waited for (CRunLoop::kReadable, kWritable); takes
    // effect at the loop's next wait. Does nothing on an inactive handle.
    void setEvents(unsigned events) noexcept;

private:
    friend class CRunLoop;
    explicit CFileDescriptorSource(std::weak_ptr<detail::RunLoopNode> node) noexcept
        : CRunLoopHandle(std::move(node)) {}
};

class QUILL_PLATFORM_EXPORT CRunLoop final {
public:
    // Events of a file descriptor source, as a bit set. kError and kHangUp are
    // always reported and need not be asked for. A source stays in the loop
    // after an error or hang-up and is reported again at every pass until its
    // callback removes it, except that a descriptor found closed (not a valid
    // descriptor) is reported once with kError and then removed.
    enum Event : unsigned {
        kReadable = 1u << 0,
        kWritable = 1u << 1,
        kError = 1u << 2,
        kHangUp = 1u << 3,
    };

    // Why a run returned.
    enum class Result {
        TimedOut,  // the time given was used up
        Stopped,   // stop() was called
        Handled,   // a source was served and the caller asked to return then
    };

    using Task = std::function<void()>;
    using TimerCallback = std::function<void()>;
    // Gets the descriptor and the events that occurred.
    using FileDescriptorCallback = std::function<void(int fd, unsigned events)>;

    // The calling thread's loop, made on first use. Making it throws
    // std::system_error when the wake-up descriptor cannot be made and
    // ferrocore::CException when the mutex cannot.
    static CRunLoop& current();

    CRunLoop(const CRunLoop&) = delete;
    CRunLoop& operator=(const CRunLoop&) = delete;
    ~CRunLoop();

    // Serves the loop's sources for `seconds` (a negative or NaN time counts
    // as 0: one pass over what is ready, without waiting). Returns early with
    // Stopped when stop() is called, and with Handled after the first pass that
    // ran a callback when `returnAfterSourceHandled` is set. Waits the full
    // time even when the loop has no sources. Must be called on the loop's
    // thread; otherwise throws std::logic_error.
    Result runFor(double seconds, bool returnAfterSourceHandled = false);

    // Waits at most `maxWait` seconds for something to serve, serves what is
    // ready and returns.
    Result runOnce(double maxWait = 0.0) { return runFor(maxWait, true); }

    // Runs until `done` returns true (asked before the first pass and after
    // each), stop() is called or `timeoutSeconds` pass. Returns the last answer
    // of `done`.
    bool runUntil(const std::function<bool()>& done, double timeoutSeconds);

    // Makes the innermost run of this loop that is in progress return Stopped
    // at the end of its current callback. A stop while the loop is not running
    // is dropped (post a task that calls stop() to stop a run that may not
    // have begun yet).
    void stop();

    // Whether a run of this loop is in progress (on its thread).
    bool isRunning() const;

    // Queues `task` to run on the loop's thread during a later pass, in the
    // order of posting, and wakes the loop. Tasks not run when the thread ends
    // are destroyed unrun.
    void post(Task task);

    // A timer that first fires `delaySeconds` from now and then, when
    // `intervalSeconds` > 0, every interval after that (a late loop skips the
    // firings it missed); otherwise once. Cancelled when the handle goes away.
    [[nodiscard]] CRunLoopTimer addTimer(double delaySeconds, double intervalSeconds, TimerCallback callback);

    // Watches `fd` for `events` (kReadable, kWritable or both; 0 waits only for
    // errors). The callback runs when the descriptor is ready. Removed when the
    // handle goes away.
    [[nodiscard]] CFileDescriptorSource addFileDescriptorSource(int fd, unsigned events,
                                                                FileDescriptorCallback callback);

private:
    CRunLoop();

    std::shared_ptr<detail::RunLoopState> _state;
};

}  // namespace quill::platform
