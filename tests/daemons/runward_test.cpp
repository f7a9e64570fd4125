// runwardd and runwardctl as real processes in a throw-away home and runtime
// directory, plus the control channel's encoding.
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

#include "JobDefinition.h"
#include "ProcessTable.h"
#include "Protocol.h"
#include "support/RunCommand.h"
#include "support/TestSupport.h"
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/PLPropertyList.h>

namespace {

using namespace std::chrono_literals;
using quilltest::CommandResult;
using quilltest::runCommand;
using quilltest::ScopedEnv;
using quilltest::TempDir;

bool waitFor(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(10ms);
    }
    return true;
}

bool alive(pid_t pid) {
    auto info = runward::readProcess(pid);
    return info && info->state != 'Z';
}

std::vector<std::string> lines(const std::filesystem::path& path) {
    std::ifstream in(path);
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) out.push_back(line);
    return out;
}

std::string xmlEscape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<') {
            out += "&lt;";
        } else if (c == '&') {
            out += "&amp;";
        } else {
            out += c;
        }
    }
    return out;
}

// A job that runs a shell script; `keepAlive` is the raw text of its
// "KeepAlive" value.
std::string jobText(const std::string& label, const std::string& script, const std::string& keepAlive,
                    const std::string& extra = {}) {
    std::string text = "<plist version=\"1.0\">\n<dict>\n<key>Label</key><string>" + xmlEscape(label) +
                       "</string>\n<key>ProgramArguments</key><array><string>sh</string><string>-c</string><string>" +
                       xmlEscape(script) + "</string></array>\n";
    if (!keepAlive.empty()) text += "<key>KeepAlive</key>" + keepAlive + "\n";
    return text + extra + "</dict>\n</plist>\n";
}

std::string pathState(const std::string& path) {
    return "<dict><key>SuccessfulExit</key><true/><key>PathState</key><dict><key>" + xmlEscape(path) +
           "</key><true/></dict></dict>";
}

class Runward : public ::testing::Test {
protected:
    Runward() : _home("HOME", (_dir / "home").string()), _runtime("XDG_RUNTIME_DIR", (_dir / "run").string()) {}

    void SetUp() override {
        std::filesystem::create_directories(_dir / "home");
        std::filesystem::create_directories(_dir / "run");
        ::chmod((_dir / "run").c_str(), 0700);
    }

    void TearDown() override {
        stopDaemon();
        // No process of any job may outlive the test: they all have the
        // throw-away home in their environment.
        std::vector<pid_t> left;
        const std::string marker = "HOME=" + (_dir / "home").string();
        for (const auto& info : runward::listOwnProcesses()) {
            if (info.state == 'Z' || info.pid == ::getpid()) continue;
            std::ifstream in("/proc/" + std::to_string(info.pid) + "/environ");
            std::string environ((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
            if (environ.find(marker + '\0') != std::string::npos) left.push_back(info.pid);
        }
        for (pid_t pid : left) ::kill(pid, SIGKILL);
        EXPECT_TRUE(left.empty()) << left.size() << " processes left behind";
    }

    std::string ctl() const { return std::string(QUILL_TEST_RUNWARDCTL); }

    CommandResult run(std::vector<std::string> args) {
        args.insert(args.begin(), ctl());
        return runCommand(args);
    }

    std::filesystem::path writeJob(const std::string& name, const std::string& text) {
        auto path = _dir / (name + ".plist");
        quilltest::writeFile(path, text);
        ::chmod(path.c_str(), 0644);
        return path;
    }

    pid_t daemonPid() {
        std::ifstream in(_dir / "run" / "runward" / "runwardd.pid");
        long pid = 0;
        in >> pid;
        return static_cast<pid_t>(pid);
    }

    // Ends runwardd (SIGKILL when `hard`) and waits until it is gone.
    void stopDaemon(bool hard = false) {
        pid_t pid = daemonPid();
        if (pid <= 0 || !alive(pid)) return;
        quill::platform::CFileDescriptor handle(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
        ::kill(pid, hard ? SIGKILL : SIGTERM);
        pollfd wait{handle.get(), POLLIN, 0};
        EXPECT_EQ(::poll(&wait, 1, 15000), 1) << "runwardd did not end";
    }

    std::string log() { return quilltest::readFile(_dir / "home/Library/Logs/Lumenforge/runwardd.log"); }

    // The pid of the job's main process from "list -x", or 0.
    pid_t jobPid(const std::string& label) {
        auto result = run({"list", "-x", label});
        if (result.exitCode != 0) return 0;
        std::string problem;
        auto plist =
            PLPropertyListCreateFromBytes(result.out.data(), result.out.size(), PLMutability::Immutable, &problem);
        const auto* dict = PLDynamicCast<PLDictionary>(plist.get());
        const auto* pid = dict ? PLDynamicCast<PLNumber>(dict->get("PID")) : nullptr;
        return pid ? static_cast<pid_t>(pid->int64Value()) : 0;
    }

    TempDir _dir{"runward"};
    ScopedEnv _home;
    ScopedEnv _runtime;
};

TEST_F(Runward, LoadsListsAndUnloadsAJob) {
    auto starts = _dir / "starts";
    auto job = writeJob("a", jobText("com.example.a", "echo $$ >> " + starts.string() + "; exec sleep 1000", "",
                                     "<key>RunAtLoad</key><true/>"));
    auto loaded = run({"load", "-S", "Background", "-D", "user", job.string()});
    ASSERT_EQ(loaded.exitCode, 0) << loaded.err;
    ASSERT_TRUE(waitFor([&] { return jobPid("com.example.a") > 0; }));
    pid_t pid = jobPid("com.example.a");

    auto listed = run({"list", "-x", "com.example.a"});
    EXPECT_NE(listed.out.find("<string>com.example.a</string>"), std::string::npos);
    EXPECT_NE(listed.out.find("<key>PID</key>\n\t<integer>" + std::to_string(pid)), std::string::npos);
    EXPECT_NE(listed.out.find("<string>sh</string>"), std::string::npos);
    EXPECT_EQ(listed.out.find("DOCTYPE"), std::string::npos);
    auto all = run({"list"});
    EXPECT_NE(all.out.find(std::to_string(pid) + "\t-\tcom.example.a"), std::string::npos) << all.out;

    // Loading again with the same arguments keeps the process.
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    EXPECT_EQ(jobPid("com.example.a"), pid);
    EXPECT_EQ(lines(starts).size(), 1u);

    // New arguments: the old run is stopped and the new one started.
    job = writeJob("a", jobText("com.example.a", "echo $$ >> " + starts.string() + "; exec sleep 999", "",
                                "<key>RunAtLoad</key><true/>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(starts).size() == 2 && jobPid("com.example.a") > 0; }));
    EXPECT_FALSE(alive(pid));
    pid = jobPid("com.example.a");

    auto unloaded = run({"unload", job.string()});
    EXPECT_EQ(unloaded.exitCode, 0) << unloaded.err;
    EXPECT_FALSE(alive(pid)) << "unload returns once the job is gone";
    EXPECT_NE(run({"list", "-x", "com.example.a"}).exitCode, 0);
    EXPECT_NE(run({"unload", job.string()}).exitCode, 0) << "a job that is not loaded";

    std::string text = log();
    EXPECT_NE(text.find("loaded com.example.a"), std::string::npos);
    EXPECT_NE(text.find("started com.example.a as " + std::to_string(pid) + ": sh -c"), std::string::npos);
    EXPECT_NE(text.find("stopped com.example.a"), std::string::npos);
}

TEST_F(Runward, RefusesHostileDefinitionsAndChangesNothing) {
    auto good = writeJob("good", jobText("com.example.good", "exec sleep 1000", "", "<key>RunAtLoad</key><true/>"));
    ASSERT_EQ(run({"load", good.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return jobPid("com.example.good") > 0; }));
    pid_t pid = jobPid("com.example.good");

    std::string hugeArray = "<key>Label</key><string>com.example.huge</string><key>ProgramArguments</key><array>";
    for (int i = 0; i < 5000; ++i) hugeArray += "<string>x</string>";
    hugeArray += "</array>";
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"not a property list", "this is not a plist"},
        {"no Label",
         "<plist version=\"1.0\"><dict><key>ProgramArguments</key><array><string>true</string></array>"
         "</dict></plist>"},
        {"no ProgramArguments", "<plist version=\"1.0\"><dict><key>Label</key><string>x</string></dict></plist>"},
        {"Label of the wrong type",
         "<plist version=\"1.0\"><dict><key>Label</key><integer>1</integer>"
         "<key>ProgramArguments</key><array><string>true</string></array></dict></plist>"},
        {"ProgramArguments of the wrong type",
         jobText("x", "true", "", "").replace(jobText("x", "true", "", "").find("<array>"), 0, "<string>a</string>")},
        {"label with a slash", jobText("com/example", "true", "")},
        {"label with a newline", jobText("com.example\nevil", "true", "")},
        {"KeepAlive of the wrong type", jobText("x", "true", "<string>yes</string>")},
        {"PathState of the wrong type", jobText("x", "true", "<dict><key>PathState</key><true/></dict>")},
        {"PathState path not plain", jobText("x", "true", pathState(_dir.str() + "/../trigger"))},
        {"PathState path relative", jobText("x", "true", pathState("trigger"))},
        {"ExitTimeOut of the wrong type", jobText("x", "true", "", "<key>ExitTimeOut</key><string>5</string>")},
        {"huge argument array", "<plist version=\"1.0\"><dict>" + hugeArray + "</dict></plist>"},
        {"the good label with new arguments but a bad type",
         jobText("com.example.good", "true", "", "<key>RunAtLoad</key><string>no</string>")},
    };
    for (const auto& [what, text] : cases) {
        auto path = writeJob("bad", text);
        auto result = run({"load", path.string()});
        EXPECT_NE(result.exitCode, 0) << what;
        EXPECT_NE(result.err.find("runwardctl: "), std::string::npos) << what << ": " << result.err;
    }
    EXPECT_NE(run({"load", (_dir / "missing.plist").string()}).exitCode, 0);

    auto writable = writeJob("writable", jobText("com.example.w", "true", ""));
    ::chmod(writable.c_str(), 0666);
    EXPECT_NE(run({"load", writable.string()}).err.find("others can write"), std::string::npos);
    if (::geteuid() == 0) {
        auto foreign = writeJob("foreign", jobText("com.example.f", "true", ""));
        ASSERT_EQ(::chown(foreign.c_str(), 65534, 65534), 0);
        EXPECT_NE(run({"load", foreign.string()}).err.find("owned by uid 65534"), std::string::npos);
    }
    EXPECT_EQ(run({"load", "-S", "Elsewhere", good.string()}).exitCode, 2);
    EXPECT_EQ(run({"load", "-D", "galaxy", good.string()}).exitCode, 2);
    EXPECT_EQ(run({"frobnicate"}).exitCode, 2);

    // Nothing else got loaded and the good job was not disturbed.
    auto all = run({"list"});
    EXPECT_EQ(std::count(all.out.begin(), all.out.end(), '\n'), 2) << all.out;
    EXPECT_EQ(jobPid("com.example.good"), pid);
    EXPECT_EQ(run({"unload", good.string()}).exitCode, 0);
}

TEST_F(Runward, PathStateStartsAndStopsTheJob) {
    auto trigger = _dir / "trigger";
    auto events = _dir / "events";
    std::string script = "trap 'echo term >> " + events.string() + "; exit 0' TERM; echo start >> " + events.string() +
                         "; while :; do sleep 0.05; done";
    // RunAtLoad does not start a job whose path state fails.
    auto job = writeJob("p", jobText("com.example.p", script, pathState(trigger.string()),
                                     "<key>RunAtLoad</key><true/><key>ThrottleInterval</key><integer>0</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(jobPid("com.example.p"), 0);
    EXPECT_FALSE(std::filesystem::exists(events));

    quilltest::writeFile(trigger, "");
    ASSERT_TRUE(waitFor([&] { return lines(events) == std::vector<std::string>{"start"}; }));
    pid_t pid = jobPid("com.example.p");
    ASSERT_GT(pid, 0);

    std::filesystem::remove(trigger);
    ASSERT_TRUE(waitFor([&] { return !alive(pid); }));
    EXPECT_EQ(lines(events), (std::vector<std::string>{"start", "term"})) << "stopped with SIGTERM";
    std::this_thread::sleep_for(200ms);
    EXPECT_EQ(jobPid("com.example.p"), 0) << "a stop of runwardd's never causes a restart";

    // A trigger that appears by a rename into the directory counts too.
    quilltest::writeFile(_dir / "trigger.tmp", "");
    std::filesystem::rename(_dir / "trigger.tmp", trigger);
    ASSERT_TRUE(waitFor([&] { return lines(events).size() == 3; }));
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
}

TEST_F(Runward, ATriggerInADirectoryStillToBeMadeIsSeen) {
    auto trigger = _dir / "a/b/trigger";
    auto job = writeJob("d", jobText("com.example.d", "exec sleep 1000", pathState(trigger.string())));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    // Files with other names in the watched directory change nothing.
    quilltest::writeFile(_dir / "other", "");
    std::filesystem::create_directories(_dir / "a/b");
    std::this_thread::sleep_for(100ms);
    EXPECT_EQ(jobPid("com.example.d"), 0);
    quilltest::writeFile(trigger, "");
    ASSERT_TRUE(waitFor([&] { return jobPid("com.example.d") > 0; }));
    pid_t pid = jobPid("com.example.d");
    // The whole directory goes: the job stops.
    std::filesystem::remove_all(_dir / "a");
    ASSERT_TRUE(waitFor([&] { return !alive(pid); }));
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
}

TEST_F(Runward, AJobThatExitsAtOnceIsThrottledNeverGivenUp) {
    auto starts = _dir / "starts";
    auto job = writeJob("t", jobText("com.example.t", "echo x >> " + starts.string() + "; exit 3", "<true/>",
                                     "<key>RunAtLoad</key><true/><key>ThrottleInterval</key><integer>1</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(starts).size() >= 4; }, 8s));
    // Four starts take at least three throttle intervals.
    auto count = lines(starts).size();
    EXPECT_LE(count, 5u);
    std::string text = log();
    EXPECT_NE(text.find("com.example.t ("), std::string::npos);
    EXPECT_NE(text.find("exited with status 3"), std::string::npos);
    EXPECT_NE(text.find("com.example.t ran for "), std::string::npos);
    EXPECT_NE(text.find(" s, next start in "), std::string::npos);
    auto listed = run({"list", "-x", "com.example.t"});
    EXPECT_NE(listed.out.find("<key>LastExitStatus</key>"), std::string::npos);
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
}

TEST_F(Runward, SuccessfulExitRestartsOnlyAfterAZeroStatus) {
    auto starts = _dir / "starts";
    auto job = writeJob("s", jobText("com.example.s", "echo x >> " + starts.string() + "; exit 1",
                                     "<dict><key>SuccessfulExit</key><true/></dict>",
                                     "<key>RunAtLoad</key><true/><key>ThrottleInterval</key><integer>0</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(starts).size() == 1; }));
    std::this_thread::sleep_for(400ms);
    EXPECT_EQ(lines(starts).size(), 1u);
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
}

TEST_F(Runward, AJobThatIgnoresSigtermIsKilledAtTheTimeOut) {
    auto ready = _dir / "ready";
    auto job = writeJob(
        "k", jobText("com.example.k", "trap '' TERM; echo > " + ready.string() + "; while :; do sleep 0.05; done", "",
                     "<key>RunAtLoad</key><true/><key>ExitTimeOut</key><integer>1</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return std::filesystem::exists(ready); }));
    pid_t pid = jobPid("com.example.k");
    auto before = std::chrono::steady_clock::now();
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
    auto took = std::chrono::steady_clock::now() - before;
    EXPECT_FALSE(alive(pid));
    EXPECT_GE(took, 900ms);
    EXPECT_LT(took, 5s);
    EXPECT_NE(log().find("outlived its exit time-out of 1.00 s: killing it"), std::string::npos);
    EXPECT_NE(log().find("was killed by signal 9"), std::string::npos);
}

TEST_F(Runward, AStopLeavesNoDescendantBehind) {
    auto grandchild = _dir / "grandchild";
    auto orphan = _dir / "orphan";
    // One child in a session of its own, one double-forked orphan.
    std::string script = "setsid sh -c 'echo $$ > " + grandchild.string() + "; exec sleep 1000' & (sh -c 'echo $$ > " +
                         orphan.string() + "; exec sleep 1000' &) ; exec sleep 1000";
    auto job = writeJob("g", jobText("com.example.g", script, "", "<key>RunAtLoad</key><true/>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(grandchild).size() == 1 && lines(orphan).size() == 1; }));
    pid_t first = std::stoi(lines(grandchild)[0]);
    pid_t second = std::stoi(lines(orphan)[0]);
    ASSERT_TRUE(waitFor([&] { return runward::readProcess(first)->group == first; }));
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
    EXPECT_FALSE(alive(first));
    EXPECT_FALSE(alive(second));
}

TEST_F(Runward, WhatAJobLeavesBehindWhenItExitsIsStoppedBeforeItsNextRun) {
    auto children = _dir / "children";
    // Each run leaves a double-forked child and exits; KeepAlive restarts it.
    std::string script = "(sh -c 'echo $$ >> " + children.string() + "; exec sleep 1000' &); sleep 0.2; exit 0";
    auto job = writeJob("l", jobText("com.example.l", script, "<true/>",
                                     "<key>RunAtLoad</key><true/><key>ThrottleInterval</key><integer>1</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(children).size() == 2; }));
    pid_t first = std::stoi(lines(children)[0]);
    EXPECT_FALSE(alive(first)) << "the first run's child outlived it into the second run";
    EXPECT_NE(log().find("stopping what com.example.l left behind"), std::string::npos);

    // Unloading while a throttled start waits returns at once.
    ASSERT_TRUE(waitFor([&] {
        return run({"list", "-x", "com.example.l"}).out.find("<key>NextStartIn</key>") != std::string::npos;
    }));
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
    EXPECT_NE(run({"list", "-x", "com.example.l"}).exitCode, 0);
}

TEST_F(Runward, ARestartAfterSigkillBringsJobsBackExactlyOnce) {
    auto trigger = _dir / "trigger";
    quilltest::writeFile(trigger, "");
    auto pathStarts = _dir / "path-starts";
    auto loadStarts = _dir / "load-starts";
    auto idleStarts = _dir / "idle-starts";
    auto pathJob = writeJob("rp", jobText("com.example.rp", "echo $$ >> " + pathStarts.string() + "; exec sleep 1000",
                                          pathState(trigger.string())));
    auto loadJob =
        writeJob("rl", jobText("com.example.rl", "echo $$ >> " + loadStarts.string() + "; sleep 1000 & exec sleep 1000",
                               "", "<key>RunAtLoad</key><true/>"));
    auto idleJob = writeJob("ri", jobText("com.example.ri", "echo $$ >> " + idleStarts.string() + "; exec sleep 1000",
                                          pathState((_dir / "absent").string())));
    for (const auto& job : {pathJob, loadJob, idleJob}) ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    ASSERT_TRUE(waitFor([&] { return lines(pathStarts).size() == 1 && lines(loadStarts).size() == 1; }));
    pid_t oldPath = std::stoi(lines(pathStarts)[0]);
    pid_t oldLoad = std::stoi(lines(loadStarts)[0]);

    stopDaemon(true);
    EXPECT_TRUE(alive(oldPath)) << "SIGKILL of runwardd leaves its jobs running";

    auto all = run({"list"});  // starts runwardd again
    ASSERT_EQ(all.exitCode, 0) << all.err;
    EXPECT_NE(all.out.find("com.example.rp"), std::string::npos);
    ASSERT_TRUE(waitFor([&] { return lines(pathStarts).size() == 2 && lines(loadStarts).size() == 2; }));
    EXPECT_FALSE(alive(oldPath));
    EXPECT_FALSE(alive(oldLoad));
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(lines(pathStarts).size(), 2u);
    EXPECT_EQ(lines(loadStarts).size(), 2u);
    EXPECT_FALSE(std::filesystem::exists(idleStarts));
    EXPECT_EQ(jobPid("com.example.rp"), std::stoi(lines(pathStarts)[1]));
    EXPECT_NE(log().find("left by an earlier runwardd"), std::string::npos);
}

TEST_F(Runward, RapidTogglesEndWithTheJobRunningIffTheTriggerExists) {
    auto trigger = _dir / "trigger";
    auto events = _dir / "events";
    // A second copy running beside the first could not take the lock.
    std::string script = "exec 9>>" + (_dir / "lock").string() + "; flock -n 9 || echo DOUBLE >> " + events.string() +
                         "; echo start >> " + events.string() + "; exec sleep 1000";
    auto job = writeJob("r", jobText("com.example.r", script, pathState(trigger.string()),
                                     "<key>ThrottleInterval</key><integer>0</integer>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    for (int round = 0; round < 2; ++round) {
        for (int i = 0; i < 1000; ++i) {
            if (i % 2 == 0) {
                quill::platform::CFileDescriptor fd(::open(trigger.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
            } else {
                ::unlink(trigger.c_str());
            }
        }
        bool present = round == 0;
        if (present) quill::platform::CFileDescriptor fd(::open(trigger.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0644));
        EXPECT_EQ(std::filesystem::exists(trigger), present);
        ASSERT_TRUE(waitFor([&] { return (jobPid("com.example.r") > 0) == present; })) << "round " << round;
        std::this_thread::sleep_for(300ms);
        EXPECT_EQ(jobPid("com.example.r") > 0, present) << "round " << round;
    }
    auto all = lines(events);
    EXPECT_EQ(std::count(all.begin(), all.end(), "DOUBLE"), 0);
    EXPECT_GE(all.size(), 1u);
    EXPECT_EQ(run({"unload", job.string()}).exitCode, 0);
}

TEST_F(Runward, AnIdleSupervisorDoesNotWakeUp) {
    auto trigger = _dir / "trigger";
    auto job = writeJob("i", jobText("com.example.i", "exec sleep 1000", pathState(trigger.string())));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    pid_t pid = daemonPid();
    auto switches = [pid] {
        std::ifstream in("/proc/" + std::to_string(pid) + "/status");
        for (std::string line; std::getline(in, line);) {
            if (line.rfind("voluntary_ctxt_switches:", 0) == 0) return std::stol(line.substr(24));
        }
        return -1L;
    };
    std::this_thread::sleep_for(200ms);
    long before = switches();
    std::this_thread::sleep_for(1500ms);
    EXPECT_EQ(switches(), before) << "runwardd woke up with nothing to do";
}

TEST_F(Runward, TellsTheServiceManagerWhenReadyAndKeepsItFromTheJobs) {
    auto notifyPath = _dir / "notify";
    quill::platform::CFileDescriptor notify(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, notifyPath.c_str(), sizeof address.sun_path - 1);
    ASSERT_EQ(::bind(notify.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ScopedEnv notifySocket("NOTIFY_SOCKET", notifyPath.string());

    auto seen = _dir / "seen";
    auto job = writeJob("n", jobText("com.example.n", "echo \"${NOTIFY_SOCKET:-none}\" > " + seen.string(), "",
                                     "<key>RunAtLoad</key><true/>"));
    ASSERT_EQ(run({"load", job.string()}).exitCode, 0);
    pollfd wait{notify.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&wait, 1, 5000), 1);
    char buffer[512] = {};
    ASSERT_GT(::recv(notify.get(), buffer, sizeof buffer - 1, 0), 0);
    EXPECT_EQ(std::string(buffer).rfind("READY=1\nSTATUS=listening on ", 0), 0u) << buffer;
    ASSERT_TRUE(waitFor([&] { return lines(seen).size() == 1; }));
    EXPECT_EQ(lines(seen)[0], "none");
}

// ----- the control channel -----

TEST(RunwardProtocol, RequestsAndRepliesSurviveTheirFrames) {
    runward::Request request;
    request.command = "load";
    request.session = "Background";
    request.domain = "user";
    std::string problem;
    auto definition = runward::parseJobDefinition(
        PLPropertyListCreateFromBytes(jobText("a.b", "echo <&>", "<true/>").data(),
                                      jobText("a.b", "echo <&>", "<true/>").size(), PLMutability::Immutable, &problem)
            .get(),
        problem);
    ASSERT_TRUE(definition) << problem;
    request.definition = runward::jobDefinitionDictionary(*definition);
    std::string bytes = runward::encodeRequest(request) + runward::encodeReply({4, "no", "out\n"});
    EXPECT_EQ(bytes.find("DOCTYPE"), std::string::npos);

    // Fed a byte at a time, the reader yields both frames and nothing more.
    runward::FrameReader reader;
    std::vector<std::string> payloads;
    for (char c : bytes) {
        reader.feed(std::string_view(&c, 1));
        bool oversized = false;
        if (auto payload = reader.next(oversized)) payloads.push_back(*payload);
        EXPECT_FALSE(oversized);
    }
    ASSERT_EQ(payloads.size(), 2u);
    auto decoded = runward::decodeRequest(payloads[0], problem);
    ASSERT_TRUE(decoded) << problem;
    EXPECT_EQ(decoded->command, "load");
    EXPECT_EQ(decoded->session, "Background");
    EXPECT_EQ(decoded->domain, "user");
    auto again = runward::parseJobDefinition(decoded->definition.get(), problem);
    ASSERT_TRUE(again) << problem;
    EXPECT_EQ(again->programArguments, definition->programArguments);
    EXPECT_TRUE(again->keepAlive);
    auto reply = runward::decodeReply(payloads[1], problem);
    ASSERT_TRUE(reply) << problem;
    EXPECT_EQ(reply->status, 4);
    EXPECT_EQ(reply->message, "no");
    EXPECT_EQ(reply->output, "out\n");
}

TEST(RunwardProtocol, RefusesMalformedMessages) {
    std::string problem;
    EXPECT_FALSE(runward::decodeRequest("garbage", problem));
    const std::vector<std::string> bad = {
        "<plist version=\"1.0\"><array/></plist>",
        "<plist version=\"1.0\"><dict><key>Command</key><string>reboot</string></dict></plist>",
        "<plist version=\"1.0\"><dict><key>Command</key><integer>1</integer></dict></plist>",
        "<plist version=\"1.0\"><dict><key>Command</key><string>load</string></dict></plist>",
        "<plist version=\"1.0\"><dict><key>Command</key><string>load</string><key>Definition</key><true/></dict>"
        "</plist>",
    };
    for (const auto& text : bad) EXPECT_FALSE(runward::decodeRequest(text, problem)) << text;
    EXPECT_FALSE(runward::decodeReply("<plist version=\"1.0\"><dict/></plist>", problem));

    runward::FrameReader reader;
    reader.feed(std::string("\x7f\xff\xff\xff", 4));
    bool oversized = false;
    EXPECT_FALSE(reader.next(oversized));
    EXPECT_TRUE(oversized);
}

TEST(RunwardProtocol, SessionAndDomainTextsAreThoseOfTheControlTables) {
    for (const char* text : {"Aqua", "LoginWindow", "Background", "StandardIO", "System"})
        EXPECT_TRUE(runward::isKnownSession(text));
    for (const char* text : {"system", "local", "network", "user", "all"}) EXPECT_TRUE(runward::isKnownDomain(text));
    for (const char* text : {"", "aqua", "User", "System "}) {
        EXPECT_FALSE(runward::isKnownSession(text) && runward::isKnownDomain(text)) << text;
    }
    EXPECT_FALSE(runward::isKnownSession("aqua"));
    EXPECT_FALSE(runward::isKnownDomain("User"));
}

}  // namespace
