// Child processes at the host level: starting a program with a setup step that
// runs in the child between the fork and the exec, waiting for it, signalling
// it, the pipes and pseudo-terminals its standard streams use, and the user
// database entries its environment is built from.
//
// Two halves:
//  - IProcessSpawner, the part of the host seam the parent process uses. By
//    default it is the real Linux implementation (defaultProcessSpawner()); a
//    test installs a substitute with a CScopedProcessSpawner, usually a
//    CProcessSpawnerWrapper that overrides one method (a failing fork or
//    pseudo-terminal, say) and forwards the rest.
//  - The functions of namespace `child`, which only the setup step of a child
//    calls. They are plain system calls: no allocation, no locks (except
//    initGroupsForUser(), see there), each returning 0 or an errno value.
//
// Threads. The default spawner may be called from any thread at once. The
// seam itself follows the rules of Host.h: install and remove substitutes
// while no other thread uses them, and keep a substitute alive until every
// child started through it has been waited for.
//
// Exceptions. Unless a method says otherwise, nothing here throws except
// std::bad_alloc; failures are reported through results.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>

#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/export.h>

namespace quill::platform {

// How a child ended, as the wait reported it.
struct CProcessEnd {
    enum class Kind : std::uint8_t {
        Exited,    // `value` is the exit code, 0 ... 255
        Signaled,  // `value` is the number of the signal that ended it
        Stopped,   // `value` is the number of the signal that stopped it
    };
    Kind kind = Kind::Exited;
    int value = 0;
};

// One entry of the user database.
struct CUserEntry {
    std::string name;
    std::string homeDirectory;
    std::int32_t groupID = -1;
};

// The result of starting a child: its process ID, or -1 and the errno value
// of the failed fork.
struct CSpawnResult {
    std::int32_t processID = -1;
    int error = 0;
};

// How much the child shares with its parent between the fork and the exec.
enum class ChildMemory : std::uint8_t {
    // A full copy (fork): the setup step may do anything that is safe after a
    // fork in a threaded process, such as reading the user database.
    Copied,
    // The parent's own memory, with the parent's thread suspended until the
    // child has called exec or ended (vfork), which is several times cheaper
    // for a large parent. The setup step must restrict itself to the
    // functions of namespace `child` other than initGroupsForUser() and to
    // reading memory: whatever it writes, the parent sees.
    Shared,
};

// A non-owning reference to the child's setup step: a callable returning 0 to
// go on with the exec, or an errno value (or any other non-zero number) to end
// the child with that exit status instead. The callable must outlive the
// spawn() call it is passed to.
class CChildSetup {
public:
    template <class F>
    requires(!std::same_as<std::remove_cvref_t<F>, CChildSetup> && std::is_invocable_r_v<int, F&>)
        CChildSetup(F&& setup)
    noexcept  // NOLINT: implicit by design, like a function reference
        : _object(const_cast<void*>(static_cast<const void*>(std::addressof(setup)))),
          _call([](void* object) -> int { return (*static_cast<std::remove_reference_t<F>*>(object))(); }) {}

    int operator()() const { return _call(_object); }

private:
    void* _object;
    int (*_call)(void*);
};

class QUILL_PLATFORM_EXPORT IProcessSpawner {
public:
    IProcessSpawner() = default;
    IProcessSpawner(const IProcessSpawner&) = delete;
    IProcessSpawner& operator=(const IProcessSpawner&) = delete;
    virtual ~IProcessSpawner();

    // Starts a child that runs `setup` and then, when setup returned 0,
    // executes `path` (no search of PATH, no shell) with the NULL-terminated
    // argument and environment vectors. When setup returns non-zero, or the
    // exec fails, the child ends at once (no exit handlers) with setup's
    // result, respectively the exec's errno value, as its exit status. Signal
    // handlers installed by the parent are not run in a Shared child. The
    // vectors must stay valid and unchanged for the duration of the call.
    virtual CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp, CChildSetup setup,
                               ChildMemory memory) = 0;

    // Blocks until the child `processID` ends (stopped children are not
    // reported) and reaps it; retries when interrupted by a signal. On
    // failure returns the system error and leaves `end` unchanged.
    virtual std::error_code waitForProcess(std::int32_t processID, CProcessEnd& end) = 0;

    // Sends `signal` to the process.
    virtual std::error_code signalProcess(std::int32_t processID, int signal) = 0;

    // A new pipe. Both descriptors are close-on-exec: a child that is to use
    // one duplicates it onto a standard stream. On success the two ends own
    // them (descriptors they held before are closed); on failure both are
    // left as they were.
    virtual std::error_code openPipe(CFileDescriptor& readEnd, CFileDescriptor& writeEnd) = 0;

    // A new pseudo-terminal pair with default settings, not the calling
    // process's controlling terminal; both ends close-on-exec, as for
    // openPipe(), and owned as there.
    virtual std::error_code openPseudoTerminal(CFileDescriptor& master, CFileDescriptor& slave) = 0;

    // The input-mode flags (c_iflag) of the terminal `fd`.
    virtual std::error_code terminalInputFlags(int fd, std::uint32_t& flags) = 0;
    // Replaces the input-mode flags of the terminal `fd`, at once, keeping
    // its other settings.
    virtual std::error_code setTerminalInputFlags(int fd, std::uint32_t flags) = 0;

    // The effective user ID of this process.
    virtual std::int32_t effectiveUserID() = 0;
    // The user database entry of `userID`; false when there is none.
    virtual bool userEntry(std::int32_t userID, CUserEntry& entry) = 0;
};

// Forwards every call to a target spawner; derive from it and override what a
// test needs to change. The target must outlive the wrapper.
class QUILL_PLATFORM_EXPORT CProcessSpawnerWrapper : public IProcessSpawner {
public:
    // Wraps the default (real) spawner.
    CProcessSpawnerWrapper();
    // Wraps `target`, which must not be null.
    explicit CProcessSpawnerWrapper(IProcessSpawner* target) noexcept : _target(target) {}
    ~CProcessSpawnerWrapper() override;

    IProcessSpawner& target() const noexcept { return *_target; }

    CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp, CChildSetup setup,
                       ChildMemory memory) override;
    std::error_code waitForProcess(std::int32_t processID, CProcessEnd& end) override;
    std::error_code signalProcess(std::int32_t processID, int signal) override;
    std::error_code openPipe(CFileDescriptor& readEnd, CFileDescriptor& writeEnd) override;
    std::error_code openPseudoTerminal(CFileDescriptor& master, CFileDescriptor& slave) override;
    std::error_code terminalInputFlags(int fd, std::uint32_t& flags) override;
    std::error_code setTerminalInputFlags(int fd, std::uint32_t flags) override;
    std::int32_t effectiveUserID() override;
    bool userEntry(std::int32_t userID, CUserEntry& entry) override;

private:
    IProcessSpawner* const _target;
};

// The real Linux spawner. It belongs to the library, lives for the whole
// process and must never be deleted.
QUILL_PLATFORM_EXPORT IProcessSpawner& defaultProcessSpawner() noexcept;

// The spawner in use: the installed substitute, else defaultProcessSpawner().
QUILL_PLATFORM_EXPORT IProcessSpawner& processSpawner() noexcept;

// Installs `substitute` (null reinstalls the default) and returns the one
// installed before (null when it was the default). The caller keeps ownership.
QUILL_PLATFORM_EXPORT IProcessSpawner* setProcessSpawner(IProcessSpawner* substitute) noexcept;

// Installs a spawner for the lifetime of the object, then puts the previous
// one back. Scopes must end in the reverse order of their creation.
class QUILL_PLATFORM_EXPORT CScopedProcessSpawner final {
public:
    explicit CScopedProcessSpawner(IProcessSpawner& substitute) noexcept : _previous(setProcessSpawner(&substitute)) {}
    ~CScopedProcessSpawner() { setProcessSpawner(_previous); }
    CScopedProcessSpawner(const CScopedProcessSpawner&) = delete;
    CScopedProcessSpawner& operator=(const CScopedProcessSpawner&) = delete;

private:
    IProcessSpawner* const _previous;
};

// What a child's setup step may call. Each function returns 0 on success or
// the errno value of the failed system call.
namespace child {

struct CIdentity {
    std::int32_t realUserID = 0;
    std::int32_t realGroupID = 0;
    std::int32_t effectiveGroupID = 0;
};

// Closes every descriptor from `lowest` up (close_range, or a walk of
// /proc/self/fd, or of the whole descriptor table on kernels without either).
QUILL_PLATFORM_EXPORT int closeDescriptorsFrom(int lowest) noexcept;
QUILL_PLATFORM_EXPORT int closeDescriptor(int fd) noexcept;
// Makes `to` a copy of `from` (dup2) that survives the exec; retries when
// interrupted.
QUILL_PLATFORM_EXPORT int duplicateDescriptor(int from, int to) noexcept;
// Makes the process the leader of a new session (setsid).
QUILL_PLATFORM_EXPORT int startSession() noexcept;
// Makes the terminal `fd` the controlling terminal of the process's session
// (TIOCSCTTY); the process must be a session leader without one.
QUILL_PLATFORM_EXPORT int makeControllingTerminal(int fd) noexcept;

QUILL_PLATFORM_EXPORT CIdentity identity() noexcept;
// These change only the calling process, whatever the C library would do for
// the other threads of a threaded one (the child has just the one thread).
QUILL_PLATFORM_EXPORT int setEffectiveUserID(std::int32_t userID) noexcept;
QUILL_PLATFORM_EXPORT int setGroupID(std::int32_t groupID) noexcept;
QUILL_PLATFORM_EXPORT int setUserID(std::int32_t userID) noexcept;
// Sets the supplementary groups to those of `userID`'s entry in the user
// database plus its primary group (initgroups); with no entry, clears them and
// returns ENOENT. Reads the user database: only for Copied children.
QUILL_PLATFORM_EXPORT int initGroupsForUser(std::int32_t userID) noexcept;

}  // namespace child

}  // namespace quill::platform
