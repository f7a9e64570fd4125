// quill-exports-watch — puts changes of the NFS exports file in force on a
// host without systemd (where quillcore-exports.path does this job): runs
// `exportfs -r` once at start and again whenever the file is written,
// replaced or removed, within a few milliseconds of the change.
//
//   quill-exports-watch [--exports FILE] [--exportfs PROGRAM]
//
// FILE defaults to /etc/exports, PROGRAM to /usr/sbin/exportfs. It watches the
// file's directory with inotify (the file is replaced by renaming, so a watch
// on the file itself would be lost), gathers the events of one change for
// kSettleMs, then runs PROGRAM -r and waits for it (at most kExportfsTimeoutS
// seconds; then it is killed). Ends cleanly on SIGTERM or SIGINT (exit status
// 0); exit status 1 for bad arguments or a directory it cannot watch.
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include <poll.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int kSettleMs = 20;
constexpr int kExportfsTimeoutS = 30;

void complain(const std::string& text) { std::fprintf(stderr, "quill-exports-watch: %s\n", text.c_str()); }

// An owned descriptor.
class CFd {
public:
    explicit CFd(int fd = -1) : _fd(fd) {}
    ~CFd() {
        if (_fd >= 0) ::close(_fd);
    }
    CFd(const CFd&) = delete;
    CFd& operator=(const CFd&) = delete;
    int get() const { return _fd; }

private:
    int _fd;
};

// Runs `program -r`; false when it could not be run or did not succeed.
bool reexport(const std::string& program, const sigset_t& blocked) {
    pid_t child = ::fork();
    if (child < 0) {
        complain(std::string("can't fork: ") + std::strerror(errno));
        return false;
    }
    if (child == 0) {
        ::sigprocmask(SIG_UNBLOCK, &blocked, nullptr);
        const char* argv[] = {program.c_str(), "-r", nullptr};
        ::execv(argv[0], const_cast<char* const*>(argv));
        std::fprintf(stderr, "quill-exports-watch: can't run %s: %s\n", program.c_str(), std::strerror(errno));
        _exit(127);
    }
    CFd pidfd(static_cast<int>(::syscall(SYS_pidfd_open, child, 0)));
    if (pidfd.get() >= 0) {
        pollfd p{pidfd.get(), POLLIN, 0};
        int rc;
        do {
            rc = ::poll(&p, 1, kExportfsTimeoutS * 1000);
        } while (rc < 0 && errno == EINTR);
        if (rc == 0) {
            complain(program + " -r did not end within " + std::to_string(kExportfsTimeoutS) + " s; killed");
            ::kill(child, SIGKILL);
        }
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
    complain(program + " -r failed (" +
             (WIFEXITED(status) ? "exit status " + std::to_string(WEXITSTATUS(status))
                                : "signal " + std::to_string(WTERMSIG(status))) +
             ")");
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    std::string exports = "/etc/exports";
    std::string exportfs = "/usr/sbin/exportfs";
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if ((arg == "--exports" || arg == "--exportfs") && i + 1 < argc) {
            (arg == "--exports" ? exports : exportfs) = argv[++i];
        } else {
            complain("unknown argument \"" + arg +
                     "\"; usage: quill-exports-watch [--exports FILE] [--exportfs PROGRAM]");
            return 1;
        }
    }
    std::size_t slash = exports.rfind('/');
    if (exports.empty() || exports.back() == '/') {
        complain("\"" + exports + "\" is not a file path");
        return 1;
    }
    std::string directory = slash == std::string::npos ? "." : slash == 0 ? "/" : exports.substr(0, slash);
    std::string name = exports.substr(slash == std::string::npos ? 0 : slash + 1);

    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigaddset(&stop, SIGINT);
    ::sigprocmask(SIG_BLOCK, &stop, nullptr);
    CFd signals(::signalfd(-1, &stop, SFD_CLOEXEC | SFD_NONBLOCK));
    CFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
    if (signals.get() < 0 || watch.get() < 0) {
        complain(std::string("can't set up: ") + std::strerror(errno));
        return 1;
    }
    constexpr std::uint32_t kEvents = IN_CLOSE_WRITE | IN_MOVED_TO | IN_MOVED_FROM | IN_CREATE | IN_DELETE | IN_ATTRIB;
    if (::inotify_add_watch(watch.get(), directory.c_str(), kEvents | IN_ONLYDIR) < 0) {
        complain("can't watch " + directory + ": " + std::strerror(errno));
        return 1;
    }

    reexport(exportfs, stop);
    for (;;) {
        pollfd fds[2] = {{signals.get(), POLLIN, 0}, {watch.get(), POLLIN, 0}};
        bool changed = false;
        // Gather the events of one change: wait without limit for the first,
        // then briefly for the rest.
        for (;;) {
            int rc = ::poll(fds, 2, changed ? kSettleMs : -1);
            if (rc < 0 && errno == EINTR) continue;
            if (rc < 0) {
                complain(std::string("poll failed: ") + std::strerror(errno));
                return 1;
            }
            if (fds[0].revents & POLLIN) return 0;
            if (rc == 0) break;
            alignas(inotify_event) char buffer[16 * 1024];
            ssize_t got = ::read(watch.get(), buffer, sizeof buffer);
            for (ssize_t at = 0; got > 0 && at < got;) {
                const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
                if (event->mask & IN_Q_OVERFLOW) changed = true;
                if (event->mask & IN_IGNORED) {
                    complain(directory + " is gone; nothing left to watch");
                    return 1;
                }
                if (event->len > 0 && name == event->name) changed = true;
                at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
            }
        }
        if (changed) reexport(exportfs, stop);
    }
}
