// The threads that watch launched tasks. Each launched task gets one detached
// monitor thread of its own for as long as its child runs; once the thread
// has handled the end, it waits a while to serve the next launch before it
// ends, which spares a launch the cost of creating a thread.
#pragma once

namespace quill {

class CTask;

// Runs body(task) on a detached thread: an idle monitor thread when one is
// waiting, else a new one. Returns 0, or the errno value of the failed thread
// creation (then `body` is not run). Callable from any thread.
int startMonitorThread(void (*body)(CTask&), CTask& task) noexcept;

}  // namespace quill
