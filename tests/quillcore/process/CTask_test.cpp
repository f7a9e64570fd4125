#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask.h>
#include <quillcore/process/CUserTask.h>

#include "support/NotificationBus.h"
#include "support/TaskReaper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

namespace {

using quill::CArgsBuilder;
using quill::CTask;
namespace platform = quill::platform;

std::vector<std::string> argumentsOf(const CTask& task) {
    std::vector<std::string> out;
    for (std::uint32_t i = 0; i < task.arguments().size(); ++i) out.emplace_back(task.arguments().getArgs()[i]);
    return out;
}

std::vector<const char*> shellArgs(const std::string& script) { return {"-c", script.c_str(), nullptr}; }

int runScript(const std::string& script) {
    CTask task("/bin/sh", shellArgs(script).data(), nullptr, nullptr);
    EXPECT_EQ(task.launch(), 0);
    return task.waitForTask();
}

TEST(CTask, ArgumentVectorStartsWithTheFileName) {
    const char* args[] = {"a", "b c", nullptr};
    CTask task("/bin/echo", args, nullptr, nullptr);
    EXPECT_EQ(argumentsOf(task), (std::vector<std::string>{"echo", "a", "b c"}));
    task.setPath("/usr/bin/printf");
    EXPECT_EQ(argumentsOf(task), (std::vector<std::string>{"printf", "a", "b c"}));
    task.setPath(nullptr);
    task.setArgs(nullptr);
    EXPECT_EQ(argumentsOf(task), (std::vector<std::string>{""}));
}

TEST(CTask, ChildGetsTheGivenEnvironmentPlusTheCallingUser) {
    quilltest::TempDir dir;
    const std::string out = (dir / "env").string();
    const char* env[] = {"HOME=/x", "A=1", nullptr};
    CTask task("/bin/sh", shellArgs("env > " + out).data(), env, nullptr);
    ASSERT_EQ(task.launch(), 0);
    ASSERT_EQ(task.waitForTask(), 0);

    const passwd* user = getpwuid(geteuid());
    ASSERT_NE(user, nullptr);
    const std::string text = quilltest::readFile(out);
    const std::string name = user->pw_name;
    EXPECT_NE(text.find("HOME=/x\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("HOME=", text.find("HOME=/x") + 1), std::string::npos) << text;
    EXPECT_NE(text.find("A=1\n"), std::string::npos) << text;
    EXPECT_NE(text.find("LOGNAME=" + name + "\n"), std::string::npos) << text;
    EXPECT_NE(text.find("USER=" + name + "\n"), std::string::npos) << text;
    EXPECT_EQ(text.find("PATH="), std::string::npos) << "the caller's environment must not leak in: " << text;
}

TEST(CTask, ExitStatusIsTheCodeOrTheSignalNumberOrTheExecError) {
    EXPECT_EQ(runScript("exit 7"), 7);
    EXPECT_EQ(runScript("kill -KILL $$"), 9);

    CTask missing("/nonexistent/program", nullptr, nullptr, nullptr);
    EXPECT_EQ(missing.launch(), 0);
    EXPECT_EQ(missing.waitForTask(), ENOENT);
}

TEST(CTask, TimedWaitLeavesTheChildRunningUntilTerminated) {
    const char* args[] = {"5", nullptr};
    CTask task("/bin/sleep", args, nullptr, nullptr);
    quilltest::TaskReaper reaper(task);
    ASSERT_EQ(task.launch(), 0);
    EXPECT_FALSE(task.waitForTaskWithTimeout(0.5));
    EXPECT_EQ(kill(task.processID(), 0), 0);
    EXPECT_EQ(task.launch(), -1) << "a running task cannot be launched again";

    task.terminate();
    EXPECT_TRUE(task.waitForTaskWithTimeout(30));
    EXPECT_EQ(task.waitForTask(), 15);
}

TEST(CTask, SeveralThreadsMayWaitForOneChild) {
    CTask task("/bin/sh", shellArgs("sleep 0.2; exit 3").data(), nullptr, nullptr);
    ASSERT_EQ(task.launch(), 0);
    std::atomic<int> sum{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) waiters.emplace_back([&] { sum += task.waitForTask(); });
    for (std::thread& t : waiters) t.join();
    EXPECT_EQ(sum.load(), 12);
}

// Both ways of starting a child: CTask itself borrows the parent's memory
// until the exec, any subclass gets a full fork.
struct ForkedTask : CTask {
    using CTask::CTask;
};

TEST(CTask, ChildKeepsOnlyTheStandardDescriptors) {
    const int fd = open("/dev/null", O_RDONLY);
    ASSERT_GE(fd, 0);
    ASSERT_EQ(dup2(fd, 200), 200);  // not close-on-exec
    close(fd);
    quilltest::TempDir dir;
    const std::string script =
        "[ -e /proc/self/fd/200 ] && echo open > " + (dir / "out").string() + " || echo closed > " +
        (dir / "out").string();
    const auto args = shellArgs(script);

    CTask shared("/bin/sh", args.data(), nullptr, nullptr);
    ForkedTask forked("/bin/sh", args.data(), nullptr, nullptr);
    for (CTask* task : {&shared, static_cast<CTask*>(&forked)}) {
        ASSERT_EQ(task->launch(), 0);
        EXPECT_EQ(task->waitForTask(), 0);
        EXPECT_EQ(quilltest::readFile(dir / "out"), "closed\n");
    }
    close(200);
}

struct HookedTask : CTask {
    using CTask::CTask;
    int forkResult = 0;
    int execResult = 0;
    int postResult = 0;
    std::atomic<int> exitSeen{-100};

    int on_fork() override { return forkResult != 0 ? forkResult : CTask::on_fork(); }
    int on_exec() override { return execResult != 0 ? execResult : CTask::on_exec(); }
    int post_fork() override { return postResult; }
    void on_exit(int status) override {
        exitSeen = status;
        CTask::on_exit(status);
    }
};

TEST(CTask, HookResultsStopOrEndTheLaunch) {
    const char* args[] = {"5", nullptr};
    HookedTask refused("/bin/sleep", args, nullptr, nullptr);
    refused.forkResult = 5;
    EXPECT_EQ(refused.launch(), 5);
    EXPECT_FALSE(refused.isRunning());

    HookedTask failedInChild("/bin/sleep", args, nullptr, nullptr);
    failedInChild.execResult = 42;
    ASSERT_EQ(failedInChild.launch(), 0);
    EXPECT_EQ(failedInChild.waitForTask(), 42);
    EXPECT_EQ(failedInChild.exitSeen.load(), 42);

    HookedTask rejected("/bin/sleep", args, nullptr, nullptr);
    rejected.postResult = 7;
    EXPECT_EQ(rejected.launch(), 7);
    EXPECT_EQ(rejected.waitForTask(), 15) << "a failed post_fork gets the child SIGTERM";
}

// A waiter wakes inside on_exit(), before the monitor thread is done with the
// task; launching again or destroying the task at that moment must work.
TEST(CTask, RelaunchOrDestroyRightAfterTheWait) {
    CTask reused("/bin/true", nullptr, nullptr, nullptr);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(reused.launch(), 0) << "launch " << i;
        ASSERT_EQ(reused.waitForTask(), 0);
    }
    for (int i = 0; i < 50; ++i) {
        // A user task keeps the monitor thread busy with its notification
        // after waking the waiters.
        quilltest::privateBusAddress();
        quill::CUserTask task("/bin/true", nullptr, nullptr, 0);
        ASSERT_EQ(task.launch(), 0);
        ASSERT_EQ(task.waitForTask(), 0);
    }
}

void destroyRunningTask() {
    const char* args[] = {"5", nullptr};
    auto* task = new CTask("/bin/sleep", args, nullptr, nullptr);
    task->launch();
    delete task;
}

TEST(CTaskDeathTest, DestroyingARunningTaskEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(destroyRunningTask(), testing::ExitedWithCode(255),
                "^CTask illegal operation: attempt to destruct a running task\n$");
}

// ------------------------------------------------------- through the seam

struct FailingSpawner : platform::CProcessSpawnerWrapper {
    int spawnError = 0;
    bool failWait = false;
    bool noUser = false;

    platform::CSpawnResult spawn(const char* path, const char* const* argv, const char* const* envp,
                                 platform::CChildSetup setup, platform::ChildMemory memory) override {
        if (spawnError) return {-1, spawnError};
        return CProcessSpawnerWrapper::spawn(path, argv, envp, setup, memory);
    }
    std::error_code waitForProcess(std::int32_t pid, platform::CProcessEnd& end) override {
        const std::error_code error = CProcessSpawnerWrapper::waitForProcess(pid, end);
        return failWait ? std::make_error_code(std::errc::no_child_process) : error;
    }
    bool userEntry(std::int32_t uid, platform::CUserEntry& entry) override {
        return !noUser && CProcessSpawnerWrapper::userEntry(uid, entry);
    }
};

TEST(CTask, SystemFailuresReachTheCaller) {
    FailingSpawner spawner;
    platform::CScopedProcessSpawner scope(spawner);

    spawner.spawnError = EAGAIN;
    CTask task("/bin/true", nullptr, nullptr, nullptr);
    EXPECT_EQ(task.launch(), EAGAIN);
    EXPECT_EQ(task.processID(), -1);
    EXPECT_EQ(task.waitForTask(), 0);

    spawner.spawnError = 0;
    spawner.failWait = true;
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(task.waitForTask(), -1);
    spawner.failWait = false;

    spawner.noUser = true;
    CArgsBuilder env(0);
    env.addArg("A=1");
    task.addUserEnv(env);
    EXPECT_EQ(env.size(), 1u);
}

}  // namespace
