// The real process spawner on Linux.
//
// A Shared child is made with vfork: the parent's thread is suspended until
// the child has called exec or ended, and no page tables are copied, which is
// what makes it cheap. Around the vfork every signal is blocked, so that no
// handler of the parent runs on the child's borrowed stack; the child puts
// the handlers the parent installed back to their defaults (ignored signals
// stay ignored, as across any exec) before it restores the parent's mask.
// This is the same discipline the C library's posix_spawn follows.
//
// A Copied child is a plain fork, for setup steps that need the C library
// at large (the user database, for example).
//
// The identity changes of namespace `child` call the kernel directly: the C
// library's wrappers would try to apply the change to every thread they know
// of, and in a vfork child those are the parent's threads.
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

#include <fcntl.h>
#include <grp.h>
#include <pthread.h>
#include <pwd.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include "platform/linux/PosixError.h"
#include <quillcore/platform/ProcessSpawner.h>

namespace quill::platform {

namespace {

struct ChildLaunch {
    const char* path;
    const char* const* argv;
    const char* const* envp;
    const CChildSetup* setup;
    const sigset_t* parentMask;  // null for a Copied child
};

// Handlers of the parent would run on memory the child only borrows.
void resetSignalHandlers() noexcept {
    for (int sig = 1; sig < NSIG; ++sig) {
        struct sigaction action;
        if (sigaction(sig, nullptr, &action) != 0) continue;
        if (action.sa_handler == SIG_IGN || action.sa_handler == SIG_DFL) continue;
        std::memset(&action, 0, sizeof action);
        action.sa_handler = SIG_DFL;
        sigemptyset(&action.sa_mask);
        sigaction(sig, &action, nullptr);
    }
}

[[noreturn]] void runChild(const ChildLaunch& launch) noexcept {
    if (launch.parentMask) {
        resetSignalHandlers();
        sigprocmask(SIG_SETMASK, launch.parentMask, nullptr);
    }
    int result = (*launch.setup)();
    if (result == 0) {
        execve(launch.path, const_cast<char* const*>(launch.argv), const_cast<char* const*>(launch.envp));
        result = errno;
    }
    _exit(result);
}

// Kept out of line so that nothing of the caller's frame lives in registers
// the child could change before the parent resumes.
__attribute__((noinline)) pid_t vforkChild(const ChildLaunch* launch) noexcept {
    const pid_t pid = vfork();
    if (pid == 0) runChild(*launch);
    return pid;
}

std::error_code lastError() noexcept { return posixError(errno); }

class CLinuxProcessSpawner final : public IProcessSpawner {
public:
    CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp, CChildSetup setup,
                       ChildMemory memory) override {
        ChildLaunch launch{path, argv, envp, &setup, nullptr};
        if (memory == ChildMemory::Copied) {
            const pid_t pid = fork();
            if (pid == 0) runChild(launch);
            if (pid < 0) return {-1, errno};
            return {pid, 0};
        }
        sigset_t all;
        sigset_t previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        launch.parentMask = &previous;
        const pid_t pid = vforkChild(&launch);
        const int error = pid < 0 ? errno : 0;
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        if (pid < 0) return {-1, error};
        return {pid, 0};
    }

    std::error_code waitForProcess(std::int32_t processID, CProcessEnd& end) override {
        int status = 0;
        pid_t result;
        do {
            result = waitpid(processID, &status, 0);
        } while (result < 0 && errno == EINTR);
        if (result < 0) return lastError();
        if (WIFEXITED(status)) {
            end = {CProcessEnd::Kind::Exited, WEXITSTATUS(status)};
        } else if (WIFSIGNALED(status)) {
            end = {CProcessEnd::Kind::Signaled, WTERMSIG(status)};
        } else {
            end = {CProcessEnd::Kind::Stopped, WIFSTOPPED(status) ? WSTOPSIG(status) : 0};
        }
        return {};
    }

    std::error_code signalProcess(std::int32_t processID, int signal) override {
        return kill(processID, signal) == 0 ? std::error_code() : lastError();
    }

    // Close-on-exec everywhere: only the child that a descriptor is meant for
    // gets it, by duplicating it onto a standard stream, so children started
    // by other threads at the same moment do not hold it open.
    std::error_code openPipe(CFileDescriptor& readEnd, CFileDescriptor& writeEnd) override {
        int fds[2];
        if (pipe2(fds, O_CLOEXEC) != 0) return lastError();
        readEnd.reset(fds[0]);
        writeEnd.reset(fds[1]);
        return {};
    }

    std::error_code openPseudoTerminal(CFileDescriptor& master, CFileDescriptor& slave) override {
        CFileDescriptor m(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!m) return lastError();
        char name[128];
        if (grantpt(m.get()) != 0 || unlockpt(m.get()) != 0 || ptsname_r(m.get(), name, sizeof name) != 0)
            return lastError();
        CFileDescriptor s(open(name, O_RDWR | O_NOCTTY | O_CLOEXEC));
        if (!s) return lastError();
        master = std::move(m);
        slave = std::move(s);
        return {};
    }

    std::error_code terminalInputFlags(int fd, std::uint32_t& flags) override {
        termios attributes;
        if (tcgetattr(fd, &attributes) != 0) return lastError();
        flags = static_cast<std::uint32_t>(attributes.c_iflag);
        return {};
    }

    std::error_code setTerminalInputFlags(int fd, std::uint32_t flags) override {
        termios attributes;
        if (tcgetattr(fd, &attributes) != 0) return lastError();
        attributes.c_iflag = static_cast<tcflag_t>(flags);
        if (tcsetattr(fd, TCSANOW, &attributes) != 0) return lastError();
        return {};
    }

    std::int32_t effectiveUserID() override { return static_cast<std::int32_t>(geteuid()); }

    bool userEntry(std::int32_t userID, CUserEntry& entry) override {
        long size = sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(size > 0 ? static_cast<std::size_t>(size) : 1024);
        for (;;) {
            passwd record;
            passwd* found = nullptr;
            const int rc = getpwuid_r(static_cast<uid_t>(userID), &record, buffer.data(), buffer.size(), &found);
            if (rc == ERANGE && buffer.size() < (1u << 20)) {
                buffer.resize(buffer.size() * 2);
                continue;
            }
            if (rc != 0 || !found) return false;
            entry.name = found->pw_name ? found->pw_name : "";
            entry.homeDirectory = found->pw_dir ? found->pw_dir : "";
            entry.groupID = static_cast<std::int32_t>(found->pw_gid);
            return true;
        }
    }
};

// The file-name characters of a directory entry as a descriptor number, or -1.
int descriptorNumber(const char* name) noexcept {
    if (*name == '\0') return -1;
    int fd = 0;
    for (; *name; ++name) {
        if (*name < '0' || *name > '9' || fd > 100000000) return -1;
        fd = fd * 10 + (*name - '0');
    }
    return fd;
}

// The directory walk of closeDescriptorsFrom(), with no allocation: entries
// are read straight from the kernel into a buffer on the stack.
bool closeListedDescriptors(int lowest) noexcept {
    const int dir = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (dir < 0) return false;
    alignas(8) char buffer[4096];
    for (;;) {
        const long count = syscall(SYS_getdents64, dir, buffer, sizeof buffer);
        if (count <= 0) break;
        for (long offset = 0; offset < count;) {
            struct Entry {
                std::uint64_t inode;
                std::int64_t next;
                unsigned short length;
                unsigned char type;
                char name[1];
            };
            const auto* entry = reinterpret_cast<const Entry*>(buffer + offset);
            const int fd = descriptorNumber(entry->name);
            if (fd >= lowest && fd != dir) close(fd);
            offset += entry->length;
        }
    }
    close(dir);
    return true;
}

}  // namespace

IProcessSpawner& defaultProcessSpawner() noexcept {
    // Never destroyed: children may still be waited for during static
    // destruction.
    alignas(CLinuxProcessSpawner) static unsigned char storage[sizeof(CLinuxProcessSpawner)];
    static IProcessSpawner* const instance = new (storage) CLinuxProcessSpawner();
    return *instance;
}

namespace child {

int closeDescriptorsFrom(int lowest) noexcept {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, static_cast<unsigned>(lowest), ~0u, 0u) == 0) return 0;
    if (errno != ENOSYS) return errno;
#endif
    if (closeListedDescriptors(lowest)) return 0;
    const long tableSize = sysconf(_SC_OPEN_MAX);
    for (long fd = lowest; fd < tableSize; ++fd) close(static_cast<int>(fd));
    return 0;
}

int closeDescriptor(int fd) noexcept { return close(fd) == 0 ? 0 : errno; }

int duplicateDescriptor(int from, int to) noexcept {
    if (from == to) {
        // dup2 would do nothing, and leave the descriptor close-on-exec.
        const int flags = fcntl(from, F_GETFD);
        if (flags < 0 || fcntl(from, F_SETFD, flags & ~FD_CLOEXEC) < 0) return errno;
        return 0;
    }
    int result;
    do {
        result = dup2(from, to);
    } while (result < 0 && errno == EINTR);
    return result < 0 ? errno : 0;
}

int startSession() noexcept { return setsid() < 0 ? errno : 0; }

int makeControllingTerminal(int fd) noexcept { return ioctl(fd, TIOCSCTTY, 0) == 0 ? 0 : errno; }

CIdentity identity() noexcept {
    return {static_cast<std::int32_t>(getuid()), static_cast<std::int32_t>(getgid()),
            static_cast<std::int32_t>(getegid())};
}

namespace {

#ifdef SYS_setresuid32
constexpr long kSetResUid = SYS_setresuid32;
constexpr long kSetGid = SYS_setgid32;
constexpr long kSetUid = SYS_setuid32;
#else
constexpr long kSetResUid = SYS_setresuid;
constexpr long kSetGid = SYS_setgid;
constexpr long kSetUid = SYS_setuid;
#endif

int idSyscall(long number, long a, long b = -1, long c = -1) noexcept {
    return syscall(number, a, b, c) == 0 ? 0 : errno;
}

}  // namespace

int setEffectiveUserID(std::int32_t userID) noexcept { return idSyscall(kSetResUid, -1, userID, -1); }

int setGroupID(std::int32_t groupID) noexcept { return idSyscall(kSetGid, groupID); }

int setUserID(std::int32_t userID) noexcept { return idSyscall(kSetUid, userID); }

int initGroupsForUser(std::int32_t userID) noexcept {
    const passwd* entry = getpwuid(static_cast<uid_t>(userID));
    if (!entry || !entry->pw_name) {
        // Without an entry the child would otherwise keep the groups of its
        // parent, which for a parent running as root are root's.
        setgroups(0, nullptr);
        return ENOENT;
    }
    return initgroups(entry->pw_name, entry->pw_gid) == 0 ? 0 : errno;
}

}  // namespace child

}  // namespace quill::platform
