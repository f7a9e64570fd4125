#include "platform/linux/SessionBus.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "platform/linux/PosixError.h"
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RuntimeDirectory.h>

extern char** environ;

namespace quill::platform::sessionbus {

namespace {

// How long a starting bus daemon may take to listen.
constexpr std::chrono::seconds kDaemonStartTimeout{10};

std::string envValue(const char* name) {
    const char* value = secure_getenv(name);
    return value ? value : "";
}

std::string errnoText(int err) { return posixError(err).message(); }

bool fillSocketAddress(const std::string& path, sockaddr_un& addr) {
    std::memset(&addr, 0, sizeof addr);
    addr.sun_family = AF_UNIX;
    if (path.size() >= sizeof addr.sun_path) return false;
    std::memcpy(addr.sun_path, path.c_str(), path.size() + 1);
    return true;
}

// Whether something accepts connections on the socket.
bool socketAnswers(const std::string& path) {
    sockaddr_un addr;
    if (!fillSocketAddress(path, addr)) return false;
    CFileDescriptor fd(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) return false;
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&addr), sizeof addr);
    } while (rc != 0 && errno == EINTR);
    return rc == 0;
}

// A descriptor number of at least 10, close-on-exec, so that the child can
// move it onto 3 or 4 without clobbering another.
int highDescriptor(int fd) {
    int high = ::fcntl(fd, F_DUPFD_CLOEXEC, 10);
    ::close(fd);
    return high;
}

// Reads one line from `fd` until `deadline`; false on time-out or end of file
// before a line feed.
bool readLine(int fd, std::chrono::steady_clock::time_point deadline, std::string& line) {
    line.clear();
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        pollfd p{fd, POLLIN, 0};
        int rc = ::poll(&p, 1, static_cast<int>(left.count()));
        if (rc < 0 && errno == EINTR) continue;
        if (rc <= 0) return false;
        char buffer[256];
        ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return false;
        line.append(buffer, static_cast<std::size_t>(n));
        std::size_t end = line.find('\n');
        if (end != std::string::npos) {
            line.resize(end);
            return true;
        }
    }
}

// Starts the bus daemon listening on `socketPath`; it detaches itself. On
// success returns its process ID.
std::error_code startDaemon(const std::string& socketPath, pid_t& daemonPid, std::string& problem) {
    std::string program = envValue(kDBusDaemonPathVariable);
    if (program.empty()) program = kDBusDaemonPath;
    std::string addressArg = "--address=" + unixAddress(socketPath);
    const char* argv[] = {program.c_str(), "--session", addressArg.c_str(), "--fork", "--print-address=3",
                          "--print-pid=4", nullptr};

    int addressPipe[2];
    int pidPipe[2];
    if (::pipe2(addressPipe, O_CLOEXEC) != 0) return posixError(errno);
    CFileDescriptor addressRead(addressPipe[0]);
    CFileDescriptor addressWrite(highDescriptor(addressPipe[1]));
    if (::pipe2(pidPipe, O_CLOEXEC) != 0) return posixError(errno);
    CFileDescriptor pidRead(pidPipe[0]);
    CFileDescriptor pidWrite(highDescriptor(pidPipe[1]));
    CFileDescriptor devNull(highDescriptor(::open("/dev/null", O_RDWR | O_CLOEXEC)));
    if (addressWrite.get() < 0 || pidWrite.get() < 0 || devNull.get() < 0) return posixError(EMFILE);

    pid_t child = ::fork();
    if (child < 0) return posixError(errno);
    if (child == 0) {
        // Only async-signal-safe calls from here to exec.
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        struct sigaction dfl {};
        dfl.sa_handler = SIG_DFL;
        for (int sig : {SIGTERM, SIGINT, SIGHUP, SIGPIPE}) sigaction(sig, &dfl, nullptr);
        if (dup2(devNull.get(), 0) < 0 || dup2(devNull.get(), 1) < 0 || dup2(devNull.get(), 2) < 0 ||
            dup2(addressWrite.get(), 3) < 0 || dup2(pidWrite.get(), 4) < 0)
            _exit(126);
        close_range(5, ~0U, 0);
        execve(argv[0], const_cast<char* const*>(argv), environ);
        _exit(127);
    }
    addressWrite.reset();
    pidWrite.reset();

    const auto deadline = std::chrono::steady_clock::now() + kDaemonStartTimeout;
    std::string address, pidText;
    bool ready = readLine(addressRead.get(), deadline, address) && readLine(pidRead.get(), deadline, pidText);
    // With --fork the program we started ends once the daemon listens (or
    // fails); the daemon itself is not our child.
    int status = 0;
    if (!ready) ::kill(child, SIGKILL);
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {}
    if (!ready) {
        if (WIFEXITED(status) && WEXITSTATUS(status) == 127) {
            problem = "can't run " + program;
        } else {
            problem = program + " did not start listening on " + socketPath;
        }
        return std::make_error_code(std::errc::connection_refused);
    }
    daemonPid = static_cast<pid_t>(std::strtol(pidText.c_str(), nullptr, 10));
    return {};
}

void writePidFile(const std::string& path, pid_t pid) {
    CFileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (fd.get() < 0) return;
    std::string text = std::to_string(pid) + "\n";
    ssize_t written = ::write(fd.get(), text.data(), text.size());
    static_cast<void>(written);  // the pid file is a courtesy; the bus works without it
}

}  // namespace

std::string unixAddress(const std::string& path) {
    // Bytes outside this set are written as %XX.
    static constexpr char kPlain[] = "-_/.\\*";
    static constexpr char kHex[] = "0123456789abcdef";
    std::string out = "unix:path=";
    for (unsigned char c : path) {
        if ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
            (c != 0 && std::strchr(kPlain, c))) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += kHex[c >> 4];
            out += kHex[c & 15];
        }
    }
    return out;
}

std::string matchRule(const std::string* name, const std::string* sender) {
    auto quoted = [](const std::string& value) {
        // Inside quotes nothing is special; a quote itself is written as
        // '\'' (close, escaped quote, reopen).
        std::string out = "'";
        for (char c : value) {
            if (c == '\'') {
                out += "'\\''";
            } else {
                out += c;
            }
        }
        return out + "'";
    };
    std::string rule = "type='signal',path='";
    rule += kNotificationBusPath;
    rule += "',interface='";
    rule += kNotificationBusInterface;
    rule += "',member='";
    rule += kNotificationBusMember;
    rule += "'";
    if (name) rule += ",arg0=" + quoted(*name);
    if (sender) rule += ",arg1=" + quoted(*sender);
    return rule;
}

std::vector<Candidate> standardCandidates() {
    std::vector<Candidate> out;
    std::string session = envValue("DBUS_SESSION_BUS_ADDRESS");
    if (!session.empty()) out.push_back({session, "DBUS_SESSION_BUS_ADDRESS"});
    std::string runtime = envValue("XDG_RUNTIME_DIR");
    if (!runtime.empty()) {
        std::string path = runtime + "/bus";
        struct stat st;
        if (::stat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) out.push_back({unixAddress(path), path});
    }
    return out;
}

Candidate systemBusCandidate() {
    std::string system = envValue(kSystemBusAddressVariable);
    if (!system.empty()) return {system, kSystemBusAddressVariable};
    return {unixAddress(kSystemBusSocketPath), "the system bus"};
}

std::string privateBusDirectory() { return userPrivateDirectory(kPrivateBusDirectoryName); }

std::error_code ensurePrivateBus(std::string& address, bool& started, std::string& problem) {
    started = false;
    const std::string directory = privateBusDirectory();
    if (std::error_code ec = ensureUserPrivateDirectory(directory, problem)) return ec;

    const std::string lockPath = directory + "/" + kPrivateBusLockName;
    CFileDescriptor lock(::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (lock.get() < 0) {
        int err = errno;
        problem = "can't open " + lockPath + ": " + errnoText(err);
        return posixError(err);
    }
    while (::flock(lock.get(), LOCK_EX) != 0) {
        if (errno != EINTR) {
            int err = errno;
            problem = "can't lock " + lockPath + ": " + errnoText(err);
            return posixError(err);
        }
    }

    const std::string socketPath = directory + "/" + kPrivateBusSocketName;
    address = unixAddress(socketPath);
    sockaddr_un probe;
    if (!fillSocketAddress(socketPath, probe)) {
        problem = "the socket path " + socketPath + " is too long";
        return std::make_error_code(std::errc::filename_too_long);
    }
    if (socketAnswers(socketPath)) return {};

    ::unlink(socketPath.c_str());  // a socket left behind by a daemon that is gone
    pid_t daemonPid = 0;
    if (std::error_code ec = startDaemon(socketPath, daemonPid, problem)) return ec;
    writePidFile(directory + "/" + kPrivateBusPidName, daemonPid);
    started = true;
    host().logToConsole("QuillNotification: no session bus answered; started a private notification bus at " + address +
                        " (pid " + std::to_string(daemonPid) + ")");
    return {};
}

}  // namespace quill::platform::sessionbus
