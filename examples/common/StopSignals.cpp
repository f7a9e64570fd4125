#include "StopSignals.h"

#include <cerrno>
#include <csignal>
#include <system_error>

#include <sys/signalfd.h>
#include <unistd.h>

namespace example {

namespace {

sigset_t stopSignals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

}  // namespace

void blockStopSignals() {
    const sigset_t set = stopSignals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void unblockStopSignals() {
    const sigset_t set = stopSignals();
    sigprocmask(SIG_UNBLOCK, &set, nullptr);  // also safe between fork and exec
}

CStopSignalWatch::CStopSignalWatch(std::function<void(int)> onStop) : _onStop(std::move(onStop)) {
    const sigset_t set = stopSignals();
    _fd.reset(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!_fd) throw std::system_error(errno, std::generic_category(), "signalfd");
    _source = quill::platform::CRunLoop::current().addFileDescriptorSource(
        _fd.get(), quill::platform::CRunLoop::kReadable, [this](int fd, unsigned) {
            signalfd_siginfo info;
            while (read(fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info))
                _onStop(static_cast<int>(info.ssi_signo));
        });
}

CStopSignalWatch::~CStopSignalWatch() { _source.remove(); }

}  // namespace example
