#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/process/CUserTask.h>

#include "support/NotificationBus.h"
#include "support/TaskReaper.h"
#include "support/TestSupport.h"

#include <gtest/gtest.h>

#include <pwd.h>
#include <unistd.h>

#include <cstdint>
#include <fstream>
#include <map>
#include <string>

namespace {

using quill::CUserTask;

// The fields of /proc/<pid>/status, by name.
std::map<std::string, std::string> processStatus(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::map<std::string, std::string> fields;
    std::string line;
    while (std::getline(in, line)) {
        const auto colon = line.find(':');
        if (colon == std::string::npos) continue;
        const auto first = line.find_first_not_of(" \t", colon + 1);
        const auto last = line.find_last_not_of(" \t");
        fields[line.substr(0, colon)] = first == std::string::npos ? "" : line.substr(first, last + 1 - first);
    }
    return fields;
}

// The status of a child once it has run its exec (and so changed user).
std::map<std::string, std::string> statusAfterExec(pid_t pid, const std::string& program) {
    std::map<std::string, std::string> status;
    for (int i = 0; i < 2000 && (status = processStatus(pid))["Name"] != program; ++i) usleep(1000);
    return status;
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
    const char* _sleepArgs[2] = {"30", nullptr};
};

TEST_F(CUserTaskTest, ChildRunsAsTheUserWithItsGroupsInANewSession) {
    if (geteuid() != 0) GTEST_SKIP() << "changing user needs root; run the tests as root to cover it";
    const std::int32_t nobody = nobodyID();
    ASSERT_GT(nobody, 0) << "the test needs the account 'nobody'";

    CUserTask task("/bin/sleep", _sleepArgs, nullptr, nobody);
    quilltest::TaskReaper reaper(task);
    ASSERT_EQ(task.launch(), 0);
    const pid_t pid = task.processID();
    auto status = statusAfterExec(pid, "sleep");
    const std::string id = std::to_string(nobody);
    EXPECT_EQ(status["Uid"], id + "\t" + id + "\t" + id + "\t" + id);
    // The primary group is deliberately not taken from the user's entry.
    EXPECT_EQ(status["Gid"], "0\t0\t0\t0");
    EXPECT_EQ(status["Groups"], std::to_string(getpwnam("nobody")->pw_gid));
    EXPECT_EQ(getsid(pid), pid);

    task.terminate();
    EXPECT_EQ(task.waitForTask(), 15);
}

TEST_F(CUserTaskTest, UserZeroKeepsTheParentsIdentityAndSession) {
    CUserTask task("/bin/sleep", _sleepArgs, nullptr, 5);
    quilltest::TaskReaper reaper(task);
    task.setUserID(0);
    ASSERT_EQ(task.launch(), 0);
    const pid_t pid = task.processID();
    auto status = statusAfterExec(pid, "sleep");
    EXPECT_EQ(status["Uid"].substr(0, status["Uid"].find('\t')), std::to_string(getuid()));
    EXPECT_EQ(getsid(pid), getsid(0));
    task.terminate();
    EXPECT_EQ(task.waitForTask(), 15);
}

struct Received {
    int count = 0;
    std::int64_t taskPtr = 0;
    bool hasSender = false;
    std::size_t entries = 0;
};

void onTaskTerminated(PLNotificationCenterRef, void* observer, PLStringRef, PLStringRef sender,
                      PLDictionaryRef userInfo) {
    auto* received = static_cast<Received*>(observer);
    ++received->count;
    received->hasSender = sender != nullptr;
    received->entries = userInfo ? userInfo->count() : 0;
    const auto* number = userInfo ? PLDynamicCast<PLNumber>(userInfo->get(quill::QuillCorePrivate::kDictKeyTaskPtr))
                                   : nullptr;
    received->taskPtr = number ? number->int64Value() : 0;
}

TEST_F(CUserTaskTest, EndIsAnnouncedOnTheBusWithTheTaskAddress) {
    Received received;
    registerForNotification(&received, onTaskTerminated, quill::QuillNotification::kQuillTaskTerminatedNotification,
                            nullptr);
    // The announcement comes with any user; as root, with a real change.
    const std::int32_t user = geteuid() == 0 ? nobodyID() : 0;
    CUserTask task("/bin/true", nullptr, nullptr, user);
    ASSERT_EQ(task.launch(), 0);
    EXPECT_EQ(task.waitForTask(), 0);
    EXPECT_TRUE(quilltest::runLoopUntil([&] { return received.count > 0; }));
    unregisterForNotifications(&received);
    EXPECT_EQ(received.count, 1);
    EXPECT_EQ(received.taskPtr, static_cast<std::int64_t>(reinterpret_cast<std::intptr_t>(&task)));
    EXPECT_FALSE(received.hasSender);
    EXPECT_EQ(received.entries, 1u);
}

}  // namespace
