// End to end with the library: a service installed, enabled and synchronised
// runs as a job of the real runwardd, through the real runwardctl.
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "ProcessTable.h"
#include "support/ConfigHome.h"
#include "support/RunCommand.h"
#include "support/ServiceFixtures.h"
#include <quillcore/control/QuillConfig.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/NotificationCenter.h>

namespace {

using namespace std::chrono_literals;
using namespace quill::platform;
namespace fs = std::filesystem;

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

std::vector<std::string> lines(const fs::path& path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

bool alive(pid_t pid) {
    auto info = runward::readProcess(pid);
    return info && info->state != 'Z';
}

class RunwardLibrary : public testing::Test {
protected:
    quilltest::ConfigHome home;
    quilltest::TempDir work{"runward-e2e"};
    quilltest::ScopedEnv runtime{"XDG_RUNTIME_DIR", (work / "run").string()};
    // The library runs the control command with the user's own home from the
    // user database: a wrapper keeps it in the throw-away home.
    quilltest::ScopedEnv command{"QUILL_RUNWARDCTL", (work / "runwardctl").string()};
    CNotificationCenter center{makeLoopbackNotificationTransport()};
    CScopedNotificationCenter installed{center};
    std::string kind = quilltest::uniqueServiceKind("runward");
    std::string label = kind.substr(kind.find(':') + 1);
    fs::path runs = work / "runs";

    void SetUp() override {
        fs::create_directories(work / "run");
        ::chmod((work / "run").c_str(), 0700);
        quilltest::writeFile(work / "runwardctl", "#!/bin/sh\nHOME='" + home.home().string() + "' XDG_RUNTIME_DIR='" +
                                                      (work / "run").string() + "' exec '" + QUILL_TEST_RUNWARDCTL +
                                                      "' \"$@\"\n");
        ::chmod((work / "runwardctl").c_str(), 0755);
    }

    void TearDown() override {
        quilltest::removeTriggerFiles(label, 1);
        std::ifstream in(work / "run/runward/runwardd.pid");
        long pid = 0;
        in >> pid;
        if (pid > 0 && alive(static_cast<pid_t>(pid))) {
            CFileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, static_cast<pid_t>(pid), 0)));
            ::kill(static_cast<pid_t>(pid), SIGTERM);
            pollfd wait{handle.get(), POLLIN, 0};
            EXPECT_EQ(::poll(&wait, 1, 40000), 1);
        }
        for (const auto& line : lines(runs)) {
            pid_t service = std::stoi(line.substr(0, line.find(' ')));
            EXPECT_FALSE(alive(service)) << "service " << service << " left running";
            if (alive(service)) ::kill(service, SIGKILL);
        }
    }

    // The pid of the latest run of the service.
    pid_t latest() {
        auto all = lines(runs);
        return all.empty() ? 0 : std::stoi(all.back().substr(0, all.back().find(' ')));
    }
};

TEST_F(RunwardLibrary, ASynchronisedServiceRunsAndStopsWithItsTriggerFile) {
    auto bundle = quilltest::makeServiceBundle(
        work.path(), "Runward.bundle",
        quilltest::serviceInfo(kind, quilltest::serviceConfig("runwardd.RunwardAgent.User", 1).get()).get());
    // The service records its process ID and arguments, then waits.
    quilltest::writeFile(bundle / "service", "#!/bin/sh\necho \"$$ $*\" >> " + runs.string() + "\nexec sleep 1000\n");
    ::chmod((bundle / "service").c_str(), 0755);
    // installService answers with the cache flush's result, false even when it wrote.
    installService(PLURL::createWithPath(bundle.string(), true).get());
    ASSERT_TRUE(serviceInstalled(PLString::create(kind).get()));
    ASSERT_TRUE(enableService(PLString::create(kind).get()));
    auto kinds = PLArray::createFromValues({PLString::create(kind)});

    syncServices(kinds.get());
    ASSERT_TRUE(waitFor([&] { return lines(runs).size() == 1; }, 10s));
    pid_t first = latest();
    EXPECT_TRUE(alive(first));
    auto listed = quilltest::runCommand({QUILL_TEST_RUNWARDCTL, "list", "-x", label});
    EXPECT_EQ(listed.exitCode, 0);
    EXPECT_NE(listed.out.find((bundle / "service").string()), std::string::npos) << listed.out;

    // quillctl host status shows the job, its process and its trigger file.
    ASSERT_FALSE(quilltest::quillctlPath().empty());
    auto status = quilltest::runCommand({quilltest::quillctlPath(), "host", "status"});
    EXPECT_EQ(status.exitCode, 0) << status.err;
    EXPECT_NE(status.out.find("runwardd: running, pid "), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("daemon: not running (recorded pids: none)"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(kind + ": enabled, runs as a job"), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("instance 0: job " + label + " ("), std::string::npos) << status.out;
    EXPECT_NE(status.out.find(".runwardagent." + std::to_string(::geteuid()) + ": present"), std::string::npos);
    EXPECT_NE(status.out.find("job: running, pid " + std::to_string(first)), std::string::npos) << status.out;
    EXPECT_NE(status.out.find("msg=\"started " + label), std::string::npos) << "the log's tail";

    // Synchronising again loads the job again and leaves the service alone.
    syncServices(kinds.get());
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(lines(runs).size(), 1u);

    ASSERT_TRUE(disableService(PLString::create(kind).get()));
    syncServices(kinds.get());
    EXPECT_TRUE(waitFor([&] { return !alive(first); }, 30s)) << "stopped within its exit time-out";

    ASSERT_TRUE(enableService(PLString::create(kind).get()));
    syncServices(kinds.get());
    ASSERT_TRUE(waitFor([&] { return lines(runs).size() == 2; }, 10s)) << "a stop of runwardd's is not throttled";
    pid_t second = latest();

    // Killed from outside, it comes back after the throttle interval.
    ::kill(second, SIGKILL);
    ASSERT_TRUE(waitFor([&] { return lines(runs).size() == 3; }, 15s));
    EXPECT_FALSE(alive(second));
    std::string log = quilltest::readFile(home.home() / "Library/Logs/Lumenforge/runwardd.log");
    EXPECT_NE(log.find("was killed by signal 9"), std::string::npos);
    EXPECT_NE(log.find(label + " ran for "), std::string::npos);

    auto jobFile = home.home() / "Library/RunwardAgents" / (label + ".plist");
    auto unloaded = quilltest::runCommand({QUILL_TEST_RUNWARDCTL, "unload", jobFile.string()});
    EXPECT_EQ(unloaded.exitCode, 0) << unloaded.err;
    EXPECT_FALSE(alive(latest()));
}

}  // namespace
