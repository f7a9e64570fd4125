#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <exception>
#include <string>
#include <thread>
#include <typeinfo>

#include "quillcore/process/MonitorThreadPool.h"
#include <ferrocore/Format.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

std::unique_ptr<char[]> copyText(const char* text) {
    if (!text) return nullptr;
    const std::size_t size = std::strlen(text) + 1;
    std::unique_ptr<char[]> copy(new char[size]);
    std::memcpy(copy.get(), text, size);
    return copy;
}

// The task whose end the current thread is handling, if it is a monitor
// thread inside waitingForTask().
thread_local const CTask* tMonitoredTask = nullptr;

void addUnlessPresent(CArgsBuilder& env, const char* name, const std::string& value) {
    if (env.findArg(name) >= 0) return;
    env.addArg(ferrocore::formatString("%s=%s", name, value.c_str()).c_str());
}

}  // namespace

CTask::CTask(const char* path, const char* const* args, const char* const* env, const char* shell) {
    setPath(path);
    setArgs(args);
    setEnv(env);
    setShell(shell);
}

CTask::~CTask() {
    if (!isRunning()) return;
    if (_exitCondition.value() != 1) {
        std::fputs("CTask illegal operation: attempt to destruct a running task\n", stderr);
        std::exit(-1);
    }
    waitUntilFinished();
}

bool CTask::waitUntilFinished() const noexcept {
    // The child has ended and the waiters are awake, but the monitor thread
    // is still in on_exit() (a user task is announcing the end, say) and sets
    // the finished flag last; it touches nothing after that. The monitor
    // thread itself cannot wait for its own flag.
    if (tMonitoredTask == this) return false;
    // The wait is short; sleep a little between looks rather than spin.
    for (int round = 0; !_finished.load(std::memory_order_acquire); ++round) {
        if (round < 64) {
            std::this_thread::yield();
        } else {
            const timespec pause{0, 100000};
            nanosleep(&pause, nullptr);
        }
    }
    return true;
}

void CTask::setPath(const char* path) {
    _path = copyText(path);
    if (_args.size() == 0) {
        _args.addArg(getFileName());
    } else {
        _args.replaceArg(0, getFileName());
    }
}

const char* CTask::getFileName() const noexcept {
    if (!_path) return "";
    const char* slash = std::strrchr(_path.get(), '/');
    return slash ? slash + 1 : _path.get();
}

void CTask::setArgs(const char* const* args) {
    _args.clear();
    _args.addArg(getFileName());
    _args.addArgs(args);
}

void CTask::setEnv(const char* const* env) {
    _env.clear();
    _env.addArgs(env);
}

void CTask::setShell(const char* shell) { _shell = copyText(shell); }

bool CTask::isRunning() const noexcept { return _finished.load(std::memory_order_acquire) == 0 && processID() > 0; }

int CTask::launch() {
    // A waiter may launch again as soon as it wakes, before the monitor
    // thread has quite finished with the previous child.
    if (isRunning() && (_exitCondition.value() != 1 || !waitUntilFinished())) return -1;
    _processID.store(-1, std::memory_order_release);
    _finished.store(0, std::memory_order_release);

    const int forkResult = on_fork();
    if (forkResult != 0) return forkResult;

    // The environment is that of the calling process's effective user, also
    // for a user task that changes user in the child: this is intended.
    CArgsBuilder env(0);
    env.addArgs(_env.getArgs());
    addUserEnv(env);

    platform::IProcessSpawner& spawner = platform::processSpawner();
    auto setup = [this] { return on_exec(); };
    const platform::CSpawnResult spawned =
        spawner.spawn(_path.get(), _args.getArgs(), env.getArgs(), setup,
                      childMayShareMemory() ? platform::ChildMemory::Shared : platform::ChildMemory::Copied);
    _processID.store(spawned.processID, std::memory_order_release);
    if (spawned.processID <= 0) return spawned.error != 0 ? spawned.error : -1;

    const int postResult = post_fork();
    if (const int threadError = runMonitorThread(); threadError != 0) {
        // Nobody would ever reap the child or wake a waiter: end it here.
        spawner.signalProcess(spawned.processID, SIGKILL);
        waitingForTask();
        return threadError;
    }
    if (postResult != 0 && !_finished.load(std::memory_order_acquire) && processID() > 0)
        spawner.signalProcess(processID(), SIGTERM);
    return postResult;
}

void CTask::terminate() {
    if (isRunning()) platform::processSpawner().signalProcess(processID(), SIGTERM);
}

int CTask::waitForTask() {
    if (isRunning()) {
        _exitCondition.lockWhenValueSet(1);
        _exitCondition.unlock();
    }
    return _exitStatus.load(std::memory_order_acquire);
}

bool CTask::waitForTaskWithTimeout(double seconds) {
    if (!isRunning()) return true;
    if (!_exitCondition.lockWithTimeoutWhenValueSet(1, seconds)) return false;
    _exitCondition.unlock();
    return true;
}

void CTask::addUserEnv(CArgsBuilder& env) const {
    platform::IProcessSpawner& spawner = platform::processSpawner();
    platform::CUserEntry user;
    if (!spawner.userEntry(spawner.effectiveUserID(), user) || user.name.empty()) return;
    addUnlessPresent(env, "HOME", user.homeDirectory);
    addUnlessPresent(env, "LOGNAME", user.name);
    addUnlessPresent(env, "USER", user.name);
}

int CTask::on_fork() {
    _exitCondition.lockWithBlocking();
    _exitCondition.unlockAndSetValue(0);
    return 0;
}

int CTask::on_exec() {
    platform::child::closeDescriptorsFrom(3);
    return 0;
}

int CTask::post_fork() { return 0; }

void CTask::on_exit(int status) {
    _exitStatus.store(status, std::memory_order_release);
    _exitCondition.lockWithBlocking();
    _exitCondition.unlockAndSetValue(1);
}

bool CTask::childMayShareMemory() const { return typeid(*this) == typeid(CTask); }

void CTask::monitorEntry(CTask& task) { task.waitingForTask(); }

int CTask::runMonitorThread() { return startMonitorThread(&CTask::monitorEntry, *this); }

void CTask::waitingForTask() {
    tMonitoredTask = this;
    platform::CProcessEnd end;
    int status = -1;
    if (!platform::processSpawner().waitForProcess(processID(), end)) {
        switch (end.kind) {
            case platform::CProcessEnd::Kind::Exited:
            case platform::CProcessEnd::Kind::Signaled: status = end.value; break;
            case platform::CProcessEnd::Kind::Stopped: status = 0; break;
        }
    }
    try {
        on_exit(status);
    } catch (const std::exception& e) {
        // Nothing may leave the monitor thread, and the waiters must still
        // wake even when an override failed before waking them.
        PLUtil::LogToConsole(
            ferrocore::formatString("CTask::waitingForTask: on_exit failed, exception = %s.", e.what()).c_str());
        if (_exitCondition.value() != 1) CTask::on_exit(status);
    } catch (...) {
        PLUtil::LogToConsole("CTask::waitingForTask: on_exit failed.");
        if (_exitCondition.value() != 1) CTask::on_exit(status);
    }
    tMonitoredTask = nullptr;
    _finished.store(1, std::memory_order_release);
}

}  // namespace quill
