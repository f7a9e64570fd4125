// SIGTERM and SIGINT as run-loop events, for the example programs: the
// signals are blocked and read from a signal descriptor by the run loop, so
// nothing runs in a signal handler.
//
// Block first: blockStopSignals() must be called on the main thread before
// any other thread exists (the notification centre starts one on first use),
// so that every thread inherits the blocked mask and the signals stay pending
// for the descriptor instead of ending the process.
#pragma once

#include <functional>

#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/RunLoop.h>

namespace example {

// Blocks SIGTERM and SIGINT in the calling thread (and the threads it starts
// later).
void blockStopSignals();

// Unblocks them again in the calling thread: for a child between fork and
// exec (async-signal-safe), whose program must not start with them blocked.
void unblockStopSignals();

// Watches the blocked signals on the calling thread's run loop and calls
// `onStop` with the signal number for each one that arrives. Not copyable.
// Throws std::system_error when the descriptor cannot be made.
class CStopSignalWatch final {
public:
    explicit CStopSignalWatch(std::function<void(int signal)> onStop);
    ~CStopSignalWatch();
    CStopSignalWatch(const CStopSignalWatch&) = delete;
    CStopSignalWatch& operator=(const CStopSignalWatch&) = delete;

private:
    quill::platform::CFileDescriptor _fd;
    quill::platform::CFileDescriptorSource _source;
    std::function<void(int)> _onStop;
};

}  // namespace example
