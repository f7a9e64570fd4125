// A thread's run loop as other threads may use it: the notification centre
// posts deliveries through it and the bus transport watches its socket from
// it. The thread clears it when it ends, so nobody reaches a loop that is gone.
#pragma once

#include <memory>

#include <ferrocore/CMutex.h>
#include <quillcore/platform/RunLoop.h>

namespace quill::platform {

// Lock order: a centre's registry mutex or the transport's connection mutex,
// then this mutex, then the run loop's own.
struct LoopHandle {
    explicit LoopHandle(CRunLoop& runLoop) : loop(&runLoop) {}
    LoopHandle(const LoopHandle&) = delete;
    LoopHandle& operator=(const LoopHandle&) = delete;

    ferrocore::CMutex mutex;
    // Null once the thread has ended.
    CRunLoop* loop FERRO_GUARDED_BY(mutex);
};

// The calling thread's handle, made (with the thread's run loop) on first use.
std::shared_ptr<LoopHandle> currentLoopHandle();

}  // namespace quill::platform
