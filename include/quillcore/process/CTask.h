// CTask: one child program, started by fork and exec with an explicit path
// and argument vector (never through a shell or a search of PATH), watched by
// a detached monitor thread that waits for it and runs the exit hook.
//
// Life of a task: made (not running, process ID -1) -> launch() (running:
// process ID above 0) -> the child ends -> the monitor thread runs on_exit(),
// which wakes every waiter -> finished (not running). A finished task may be
// launched again.
//
// Exit status, as waitForTask() reports it: the child's exit code when it
// exited; the number of the signal when a signal ended it (so a child killed
// by SIGTERM reports 15, exactly like one that exited with code 15: the two
// are deliberately not told apart); the errno value of the exec when the
// program could not be started (2 for a path that does not exist); -1 when
// waiting for the child failed; 0 before any end.
//
// Hooks. Four virtual functions let a subclass act around the launch:
// on_fork() in the parent before the fork, on_exec() in the child before the
// exec, post_fork() in the parent after the fork, on_exit() on the monitor
// thread when the child has ended. A subclass that overrides on_exit() must
// call CTask::on_exit() (it stores the status and wakes the waiters).
//
// Threads. Three parties meet here. The owner's thread makes, changes,
// launches and terminates the task; these calls are not synchronised with
// each other and must come from one thread at a time. The monitor thread
// waits for the child and runs on_exit(). isRunning(), processID(),
// waitForTask() and waitForTaskWithTimeout() may be called from any thread:
// waiters and the monitor thread meet at the exit condition, a conditional
// mutex whose value is 0 while the child may run and 1 once it has ended.
//
// Lifetime. The monitor thread works on the task, so a task must outlive its
// child: destroying a task whose child is still running writes "CTask illegal
// operation: attempt to destruct a running task" to standard error and ends
// the whole process with exit(-1). Destroying or launching it again right
// after a wait returned, while the monitor thread is still finishing
// on_exit(), is fine: both let the monitor thread finish first. For the same
// reason an override of on_exit() must not use members of its own class after
// CTask::on_exit() has woken the waiters (the subclass part may be destroyed
// by then); CTask's own part stays until on_exit() returns.
//
// Exceptions. Construction and the setters throw std::bad_alloc (and
// construction ferrocore::CException of kind 4 when the system refuses a
// mutex); launch() reports failures through its result; nothing else throws.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

#include <ferrocore/CMutex.h>
#include <quillcore/export.h>
#include <quillcore/process/CArgsBuilder.h>

namespace quill {

class QUILL_EXPORT CTask {
public:
    // Sets the path (setPath), the arguments (setArgs), the environment
    // (setEnv) and the shell (setShell). Every argument may be null; the lists
    // are NULL-terminated and copied.
    CTask(const char* path, const char* const* args, const char* const* env, const char* shell);
    virtual ~CTask();
    CTask(const CTask&) = delete;
    CTask& operator=(const CTask&) = delete;

    // Replaces the program path (null allowed) and makes the first argument
    // its file name.
    void setPath(const char* path);
    const char* path() const noexcept { return _path.get(); }
    // The text after the last "/" of the path; the whole path when it has no
    // "/"; "" when the path is null. Points into the path.
    const char* getFileName() const noexcept;
    // The arguments: the file name, then `args` (when not null).
    void setArgs(const char* const* args);
    // The environment of the child: exactly `env` (when not null), to which
    // launch() adds HOME, LOGNAME and USER as addUserEnv() does.
    void setEnv(const char* const* env);
    // A shell path, stored for callers; launch() never uses it.
    void setShell(const char* shell);
    const char* shell() const noexcept { return _shell.get(); }

    // The argument vector (entry 0 is the file name) and the environment as
    // given; valid until the next change.
    const CArgsBuilder& arguments() const noexcept { return _args; }
    const CArgsBuilder& environment() const noexcept { return _env; }

    // Starts the child. Returns 0 on success; -1 when the task is running
    // already (nothing happens); the non-zero result of on_fork() (no child
    // is started); the errno value of a failed fork, or of a failed start of
    // the monitor thread (the child is then killed and reaped); or the
    // non-zero result of post_fork() (the child is sent SIGTERM; the monitor
    // thread still reports its end).
    int launch();

    // True between a successful launch and the end of the child's handling
    // (the finished flag is clear and the process ID is above 0).
    bool isRunning() const noexcept;
    // The child's process ID; -1 before a launch and after a failed one.
    std::int32_t processID() const noexcept { return _processID.load(std::memory_order_acquire); }

    // Sends SIGTERM to the child when the task is running; does not wait and
    // never escalates.
    void terminate();

    // When running, blocks until the child has ended; returns the exit status
    // (at once, the stored one, when not running).
    int waitForTask();
    // True at once when not running; otherwise waits at most `seconds` for the
    // child to end: true if it did, false when the time ran out (the child
    // goes on running).
    bool waitForTaskWithTimeout(double seconds);

    // Adds "HOME=<home directory>", "LOGNAME=<user name>" and "USER=<user
    // name>" of the process's effective user to `env`, each only when `env`
    // has no entry of that name; adds nothing when the user database has no
    // entry or no name for the effective user.
    void addUserEnv(CArgsBuilder& env) const;

protected:
    // In the parent, before the fork: sets the exit condition to 0 and returns
    // 0. A non-zero result stops the launch and becomes launch()'s result.
    virtual int on_fork();
    // In the child, before the exec: closes every descriptor above 2 and
    // returns 0. A non-zero result ends the child with it as exit status.
    // Runs between fork and exec, so an override must keep to what is safe
    // there, and must not change the task (see childMayShareMemory()).
    virtual int on_exec();
    // In the parent, after a successful fork: returns 0. A non-zero result
    // gets the child SIGTERM and becomes launch()'s result.
    virtual int post_fork();
    // On the monitor thread, when the child has ended: stores the status and
    // sets the exit condition to 1, which wakes every waiter.
    virtual void on_exit(int status);

    // Whether on_exec() may run in a child that borrows this process's memory
    // until the exec (vfork), much cheaper than a full fork. Such an
    // on_exec() may only use the functions of quill::platform::child (except
    // initGroupsForUser) and read memory. The default says yes only for an
    // object whose class is CTask itself, whose hook is known to qualify;
    // every subclass gets a full fork unless it overrides this.
    virtual bool childMayShareMemory() const;

private:
    static void monitorEntry(CTask& task);
    // Starts the monitor thread for the current child; 0 or an errno value.
    int runMonitorThread();
    // The monitor thread's body.
    void waitingForTask();
    // Once the child has ended, waits until the monitor thread is done with
    // the task; false (at once) when called on that monitor thread.
    bool waitUntilFinished() const noexcept;

    std::unique_ptr<char[]> _path;
    CArgsBuilder _args{25};
    CArgsBuilder _env{10};
    std::unique_ptr<char[]> _shell;
    std::atomic<std::int32_t> _processID{-1};
    ferrocore::CConditionalMutex _exitCondition{0};
    std::atomic<std::uint8_t> _finished{0};
    std::atomic<std::int32_t> _exitStatus{0};
};

}  // namespace quill
