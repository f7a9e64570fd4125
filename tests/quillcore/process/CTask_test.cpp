// Starting programs: the argument vectors, CTask and its variants (the user
// task, and CTask2 with its terminal and joined output): the child's
// arguments, environment, user, descriptors and exit status, the hooks,
// waiting, and failures injected through the process seam.
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <map>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pwd.h>
#include <unistd.h>

#include "support/FailingSpawner.h"
#include "support/NotificationBus.h"
#include "support/TaskReaper.h"
#include "support/TestSupport.h"
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/process/CTask2.h>
#include <quillcore/process/CUserTask.h>

namespace {

using namespace quill;

std::vector<std::string> entries(const CArgsBuilder& builder) {
    std::vector<std::string> out;
    const char* const* v = builder.getArgs();
    for (std::uint32_t i = 0; i < builder.size(); ++i) out.emplace_back(v[i]);
    EXPECT_EQ(v[builder.size()], nullptr) << "the vector must stay NULL-terminated";
    return out;
}

std::vector<const char*> shellArgs(const std::string& script) { return {"-c", script.c_str(), nullptr}; }
const char* const kSleep[] = {"5", nullptr};

int runScript(const std::string& script, const char* const* env = nullptr) {
    CTask task("/bin/sh", shellArgs(script).data(), env, nullptr);
    EXPECT_EQ(task.launch(), 0);
    return task.waitForTask();
}

// --------------------------------------------------------- argument vectors

TEST(CArgsBuilder, GrowsByDoublingAndReusesTheArrayAfterClear) {
    CArgsBuilder builder(0);
    ASSERT_NE(builder.getArgs(), nullptr);
    EXPECT_EQ(builder.getArgs()[0], nullptr);

    const std::vector<std::uint32_t> expected = {1, 2, 4, 4, 8};
    char text[] = "a";  // entries are private copies
    for (std::size_t i = 0; i < expected.size(); ++i, ++text[0]) {
        builder.addArg(text);
        EXPECT_EQ(builder.capacity(), expected[i]) << "after " << i + 1 << " additions";
    }
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"a", "b", "c", "d", "e"}));

    const char* const* array = builder.getArgs();
    builder.clear();
    EXPECT_EQ(builder.size(), 0u);
    EXPECT_EQ(builder.getArgs()[0], nullptr);
    for (int i = 0; i < 8; ++i) builder.addArg("again");
    EXPECT_EQ(builder.capacity(), 8u);
    EXPECT_EQ(builder.getArgs(), array);
}

TEST(CArgsBuilder, AddArgsVariantsStopAtNullAndSkipNullStrings) {
    const char* list[] = {"x", "y", nullptr, "z"};
    CArgsBuilder builder(10);
    builder.addArgs(static_cast<const char* const*>(nullptr));
    builder.addArgs(3, nullptr);
    builder.addArgs(list);
    builder.addArgs(1, list);
    builder.addArgs(4, list);  // stops at the NULL entry
    builder.addArgs(
        std::vector<ferrocore::CStringRef>{ferrocore::CString::create("s"), nullptr, ferrocore::CString::create("t")});
    builder.addArg(nullptr);
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"x", "y", "x", "x", "y", "s", "t"}));
}

TEST(CArgsBuilder, FindAndReplaceEnvironmentEntries) {
    CArgsBuilder builder(10);
    EXPECT_EQ(builder.findArg("HOME"), -1);
    for (const char* entry : {"HOME", "HOMEDIR=/b", "HOME=/a", "HOME=/second"}) builder.addArg(entry);
    EXPECT_EQ(builder.findArg("HOME"), 2) << "the bare name does not match, the first NAME= does";
    EXPECT_EQ(builder.findArg("HOMED"), -1);
    EXPECT_EQ(builder.findArg("HOMEDIR"), 1);
    EXPECT_EQ(builder.findArg(nullptr), -1);

    builder.replaceArg(2, "HOME=/new");
    builder.replaceArg(4, "past the end");
    builder.replaceArg(-1, "negative");
    EXPECT_EQ(entries(builder), (std::vector<std::string>{"HOME", "HOMEDIR=/b", "HOME=/new", "HOME=/second"}));
}

TEST(CArgsBuilder, Conversions) {
    CArgsBuilder builder(0);
    EXPECT_FALSE(static_cast<ferrocore::CStringRef>(builder));
    EXPECT_EQ(static_cast<PLHolder<const PLArray>>(builder)->count(), 0u);

    const char* command[] = {"ls", "-l", "/tmp dir", nullptr};
    builder.addArgs(command);
    const ferrocore::CStringRef line(builder);
    ASSERT_TRUE(line);
    EXPECT_EQ(line->utf8(), "ls -l /tmp dir");

    const std::vector<ferrocore::CStringRef> strings(builder);
    ASSERT_EQ(strings.size(), 3u);
    EXPECT_EQ(strings[2]->utf8(), "/tmp dir");
    const PLHolder<const PLArray> array(builder);
    ASSERT_EQ(array->count(), 3u);
    EXPECT_TRUE(PLEqual(array->at(2), PLString::create("/tmp dir").get()));
}

// -------------------------------------------------------------------- CTask

TEST(CTask, ArgumentVectorStartsWithTheFileName) {
    const char* args[] = {"a", "b c", nullptr};
    CTask task("/bin/echo", args, nullptr, nullptr);
    EXPECT_EQ(entries(task.arguments()), (std::vector<std::string>{"echo", "a", "b c"}));
    task.setPath("/usr/bin/printf");
    EXPECT_EQ(entries(task.arguments()), (std::vector<std::string>{"printf", "a", "b c"}));
    task.setPath(nullptr);
    task.setArgs(nullptr);
    EXPECT_EQ(entries(task.arguments()), (std::vector<std::string>{""}));
}

TEST(CTask, ChildGetsTheGivenEnvironmentPlusTheCallingUser) {
    quilltest::TempDir dir;
    const std::string out = (dir / "env").string();
    const char* env[] = {"HOME=/x", "A=1", nullptr};
    ASSERT_EQ(runScript("env > " + out, env), 0);
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

TEST(CTask, TimedWaitLeavesTheChildRunningAndSeveralThreadsMayWait) {
    CTask task("/bin/sleep", kSleep, nullptr, nullptr);
    quilltest::TaskReaper reaper(task);
    ASSERT_EQ(task.launch(), 0);
    EXPECT_FALSE(task.waitForTaskWithTimeout(0.5));
    EXPECT_EQ(kill(task.processID(), 0), 0);
    EXPECT_EQ(task.launch(), -1) << "a running task cannot be launched again";

    task.terminate();
    EXPECT_TRUE(task.waitForTaskWithTimeout(30));
    EXPECT_EQ(task.waitForTask(), 15);

    CTask three("/bin/sh", shellArgs("sleep 0.2; exit 3").data(), nullptr, nullptr);
    ASSERT_EQ(three.launch(), 0);
    std::atomic<int> sum{0};
    std::vector<std::thread> waiters;
    for (int i = 0; i < 4; ++i) waiters.emplace_back([&] { sum += three.waitForTask(); });
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
    const std::string script = "{ [ -e /proc/self/fd/200 ] && echo open || echo closed; } > " + (dir / "out").string();
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
    int forkResult = 0, execResult = 0, postResult = 0;  // 0: the usual behaviour
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
    HookedTask refused("/bin/sleep", kSleep, nullptr, nullptr);
    refused.forkResult = 5;
    EXPECT_EQ(refused.launch(), 5);
    EXPECT_FALSE(refused.isRunning());

    HookedTask failedInChild("/bin/sleep", kSleep, nullptr, nullptr);
    failedInChild.execResult = 42;
    ASSERT_EQ(failedInChild.launch(), 0);
    EXPECT_EQ(failedInChild.waitForTask(), 42);
    EXPECT_EQ(failedInChild.exitSeen.load(), 42);

    HookedTask rejected("/bin/sleep", kSleep, nullptr, nullptr);
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
    auto* task = new CTask("/bin/sleep", kSleep, nullptr, nullptr);
    task->launch();
    delete task;
}

TEST(CTaskDeathTest, DestroyingARunningTaskEndsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(destroyRunningTask(), testing::ExitedWithCode(255),
                "^CTask illegal operation: attempt to destruct a running task\n$");
}

// ------------------------------------------------------- through the seam

using quilltest::FailingSpawner;

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

// -------------------------------------------------------------------- CTask2

std::string outputOf(CTask2& task) {
    const ferrocore::CStringRef output = task.getTaskOutput();
    return output ? output->utf8() : "(null)";
}

TEST(CTask2, JoinsStandardOutputAndErrorIntoOneText) {
    const std::string longLine(1000, 'x');
    CTask2 task("/bin/sh", shellArgs("echo one; echo two >&2; echo " + longLine + "; printf tail").data());
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(outputOf(task), "one\ntwo\n" + longLine + "\ntail");
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_EQ(outputOf(task), "(null)") << "everything was read already";

    CArgsBuilder args(0);
    args.addArg("-c");
    args.addArg("exit 4");
    CTask2 silent("/bin/sh", args);
    ASSERT_EQ(silent.launch(), 0);
    EXPECT_EQ(outputOf(silent), "(null)");
    EXPECT_EQ(silent.waitForTask(), 4);
}

TEST(CTask2, ChildHasTheTerminalAsInputAndControllingTerminal) {
    CTask2 task("/bin/sh", shellArgs("test -t 0 && echo input-is-tty; test -t 1 || echo output-is-not; "
                                     "exec 3</dev/tty && echo has-controlling-tty; "
                                     "[ \"$(cut -d' ' -f6 /proc/$$/stat)\" = $$ ] && echo session-leader")
                               .data());
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(outputOf(task), "input-is-tty\noutput-is-not\nhas-controlling-tty\nsession-leader\n");
    EXPECT_EQ(task.waitForTask(), 0);
}

std::size_t openDescriptors() {
    std::size_t count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

TEST(CTask2, EachLaunchReplacesTheDescriptorsOfTheLastOneAndTheDestructorWaits) {
    quilltest::TempDir dir;
    const std::string marker = (dir / "done").string();
    const std::size_t before = openDescriptors();
    {
        const char* hello[] = {"hello", nullptr};
        CTask2 task("/bin/echo", hello);
        for (int i = 0; i < 5; ++i) {
            ASSERT_EQ(task.launch(), 0);
            EXPECT_EQ(outputOf(task), "hello\n");
            EXPECT_EQ(task.waitForTask(), 0);
        }
        // The terminal's two ends and the pipe's read end stay until closed.
        EXPECT_EQ(openDescriptors(), before + 3);
        task.closeTerminal();
        EXPECT_EQ(openDescriptors(), before);
        task.setPath("/bin/sh");
        task.setArgs(shellArgs("sleep 0.2; echo > " + marker).data());
        ASSERT_EQ(task.launch(), 0);
    }
    EXPECT_TRUE(std::filesystem::exists(marker)) << "the destructor waits";
    EXPECT_EQ(openDescriptors(), before) << "and closes";
}

TEST(CTask2, FailingTerminalSetupStartsNoChild) {
    FailingSpawner spawner;
    platform::CScopedProcessSpawner scope(spawner);
    CTask2 task("/bin/true", nullptr);

    for (const auto& [error, code] :
         {std::pair{&spawner.pipeError, EMFILE}, {&spawner.terminalError, ENOENT}, {&spawner.setFlagsError, EIO}}) {
        *error = code;
        EXPECT_EQ(task.launch(), -1);
        EXPECT_EQ(errno, code);
        *error = 0;
    }
    EXPECT_EQ(spawner.spawns, 0);
    EXPECT_EQ(outputOf(task), "(null)");
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_EQ(spawner.spawns, 1);
}

// ---------------------------------------------------------------- user tasks

// The fields of /proc/<pid>/status, by name, once the child has run its exec
// of `program` (and so changed user).
std::map<std::string, std::string> statusAfterExec(pid_t pid, const std::string& program) {
    std::map<std::string, std::string> fields;
    for (int i = 0; i < 2000 && fields["Name"] != program; ++i, usleep(1000)) {
        std::ifstream in("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(in, line);) {
            const auto colon = line.find(':');
            const auto first = line.find_first_not_of(" \t", colon + 1), last = line.find_last_not_of(" \t");
            if (colon != std::string::npos)
                fields[line.substr(0, colon)] = first == std::string::npos ? "" : line.substr(first, last + 1 - first);
        }
    }
    return fields;
}

std::int32_t nobodyID() {
    const passwd* entry = getpwnam("nobody");
    return entry ? static_cast<std::int32_t>(entry->pw_uid) : -1;
}

// Every user task announces its end, so each test brings up the test bus
// before the first announcement could go looking for another one.
class CUserTaskTest : public testing::Test {
protected:
    void SetUp() override { quilltest::privateBusAddress(); }
};

TEST_F(CUserTaskTest, ChildRunsAsTheUserWithItsGroupsInANewSessionButUserZeroAsTheParent) {
    CUserTask same("/bin/sleep", kSleep, nullptr, 5);
    quilltest::TaskReaper sameReaper(same);
    same.setUserID(0);
    ASSERT_EQ(same.launch(), 0);
    auto status = statusAfterExec(same.processID(), "sleep");
    EXPECT_EQ(status["Uid"].substr(0, status["Uid"].find('\t')), std::to_string(getuid()));
    EXPECT_EQ(getsid(same.processID()), getsid(0));
    same.terminate();
    EXPECT_EQ(same.waitForTask(), 15);

    if (geteuid() != 0) GTEST_SKIP() << "changing user needs root; run the tests as root to cover it";
    const std::int32_t nobody = nobodyID();
    ASSERT_GT(nobody, 0) << "the test needs the account 'nobody'";
    CUserTask task("/bin/sleep", kSleep, nullptr, nobody);
    quilltest::TaskReaper reaper(task);
    ASSERT_EQ(task.launch(), 0);
    status = statusAfterExec(task.processID(), "sleep");
    const std::string id = std::to_string(nobody);
    EXPECT_EQ(status["Uid"], id + "\t" + id + "\t" + id + "\t" + id);
    // The primary group is deliberately not taken from the user's entry.
    EXPECT_EQ(status["Gid"], "0\t0\t0\t0");
    EXPECT_EQ(status["Groups"], std::to_string(getpwnam("nobody")->pw_gid));
    EXPECT_EQ(getsid(task.processID()), task.processID());
}

TEST_F(CUserTaskTest, EndIsAnnouncedOnTheBusWithTheTaskAddress) {
    struct Received {
        int count = 0;
        bool hasSender = false;
        PLHolder<const PLDictionary> userInfo;
    } received;
    registerForNotification(
        &received,
        [](PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef sender, PLDictionaryRef userInfo) {
            auto* r = static_cast<Received*>(observer);
            ++r->count;
            r->hasSender = sender != nullptr;
            r->userInfo = PLHolder<const PLDictionary>::retain(userInfo);
        },
        quill::QuillNotification::kQuillTaskTerminatedNotification, nullptr);
    // The announcement comes with any user; as root, with a real change.
    const std::int32_t user = geteuid() == 0 ? nobodyID() : 0;
    CUserTask task("/bin/true", nullptr, nullptr, user);
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_TRUE(quilltest::runLoopUntil([&] { return received.count > 0; }));
    unregisterForNotifications(&received);
    EXPECT_EQ(received.count, 1);
    EXPECT_FALSE(received.hasSender);
    ASSERT_TRUE(received.userInfo);
    EXPECT_EQ(received.userInfo->count(), 1u);
    const auto* taskPtr = PLDynamicCast<PLNumber>(received.userInfo->get(quill::QuillCorePrivate::kDictKeyTaskPtr));
    ASSERT_TRUE(taskPtr);
    EXPECT_EQ(taskPtr->int64Value(), static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(&task)));
}

}  // namespace
