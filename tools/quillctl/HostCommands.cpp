// quillctl host status: what runs on this host for the current user: the job
// supervisor, the library's daemon, every service of the service cache that runs as one of its
// jobs (job file, label, trigger file, process ID, last exit), and the tail
// of the supervisor's log. Never starts anything: jobs are asked about only
// when runwardd already runs.
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <fstream>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Commands.h"
#include <quillcore/control/QuillConfig.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/PLPropertyList.h>
#include <quillcore/platform/RuntimeDirectory.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>

namespace quillctl {

namespace {

using quill::platform::CFileDescriptor;

constexpr int kLogTailLines = 5;

// Runs the control command with `args` and returns what it printed on
// standard output, or nothing when it failed.
bool controlCommand(const std::vector<std::string>& args, std::string& out) {
    const std::string program = quill::platform::host().systemPath(quill::platform::SystemPath::RunwardCtl);
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) return false;
    CFileDescriptor readEnd(fds[0]);
    CFileDescriptor writeEnd(fds[1]);
    std::vector<char*> argv{const_cast<char*>(program.c_str())};
    for (const auto& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
    argv.push_back(nullptr);
    pid_t pid = ::fork();
    if (pid < 0) return false;
    if (pid == 0) {
        ::dup2(writeEnd.get(), 1);
        int null = ::open("/dev/null", O_WRONLY);
        if (null >= 0) ::dup2(null, 2);
        ::execv(program.c_str(), argv.data());
        ::_exit(127);
    }
    writeEnd.reset();
    char buffer[4096];
    ssize_t n;
    while ((n = ::read(readEnd.get(), buffer, sizeof buffer)) > 0 || (n < 0 && errno == EINTR)) {
        if (n > 0) out.append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {}
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string numberText(const PLDictionary* dict, const char* key) {
    const auto* number = dict ? PLDynamicCast<PLNumber>(dict->get(key)) : nullptr;
    return number ? std::to_string(number->int64Value()) : std::string("-");
}

std::string jobState(const std::string& label) {
    std::string out;
    if (!controlCommand({"list", "-x", label}, out)) return "not loaded";
    std::string problem;
    auto plist = PLPropertyListCreateFromBytes(out.data(), out.size(), PLMutability::Immutable, &problem);
    const auto* dict = PLDynamicCast<PLDictionary>(plist.get());
    const auto* state = dict ? PLDynamicCast<PLString>(dict->get("State")) : nullptr;
    std::string text = state ? state->str() : "loaded";
    text += ", pid " + numberText(dict, "PID");
    if (dict && dict->get("LastExitSignal")) {
        text += ", last killed by signal " + numberText(dict, "LastExitSignal");
    } else if (dict && dict->get("LastExitStatus")) {
        text += ", last exit status " + numberText(dict, "LastExitStatus");
    }
    return text;
}

void printTail(const std::string& path) {
    std::ifstream in(path);
    if (!in) {
        std::printf("  %s: none\n", path.c_str());
        return;
    }
    std::deque<std::string> tail;
    for (std::string line; std::getline(in, line);) {
        tail.push_back(line);
        if (tail.size() > static_cast<std::size_t>(kLogTailLines)) tail.pop_front();
    }
    std::printf("  %s:\n", path.c_str());
    for (const auto& line : tail) std::printf("    %s\n", line.c_str());
}

int status() {
    const std::string runtime = quill::platform::userPrivateDirectory("runward");
    long pid = 0;
    std::ifstream pidFile(runtime + "/runwardd.pid");
    pidFile >> pid;
    const bool running = pid > 0 && ::kill(static_cast<pid_t>(pid), 0) == 0;
    if (running) {
        std::printf("runwardd: running, pid %ld, socket %s/runwardd.sock\n", pid, runtime.c_str());
    } else {
        std::printf("runwardd: not running\n");
    }

    // The library's daemon, as isDaemonRunning() sees it.
    const quill::CServicePIDFile daemonPids(PLString::create("corvaned").get());
    std::vector<std::int32_t> recorded;
    daemonPids.get(recorded);
    std::string recordedText;
    for (std::int32_t id : recorded) recordedText += (recordedText.empty() ? "" : " ") + std::to_string(id);
    std::printf("daemon: %s (recorded pids: %s)\n", isDaemonRunning() ? "running" : "not running",
                recordedText.empty() ? "none" : recordedText.c_str());

    const quill::CServiceCacheFile cache;
    std::vector<quill::CServiceCacheEntry> entries;
    cache.get(entries);
    std::printf("services: %zu in %s\n", entries.size(), cache.filePath()->c_str());
    for (const auto& entry : entries) {
        const PLString* hint = entry.launchHint();
        const bool isJob = hint && hint->str() == quill::kRunwardAgentUserLaunchHint;
        std::printf("  %s: %s, %s\n", entry.name() ? entry.name()->c_str() : "-",
                    entry.enabled() ? "enabled" : "disabled", isJob ? "runs as a job" : "not a job");
        if (!isJob) continue;
        for (std::int32_t i = 0; i < entry.instances(); ++i) {
            const auto path = quill::CRunwardCtlPList::expandedPListFilePathForService(entry, static_cast<unsigned>(i));
            quill::CRunwardCtlPList job(path);
            const auto label = job.getLabel();
            if (!label) {
                std::printf("    instance %d: no job file %s\n", i, path->c_str());
                continue;
            }
            const auto trigger = job.getTransientTriggerFilePath(true);
            struct stat st;
            const bool triggered = trigger && ::lstat(trigger->c_str(), &st) == 0;
            std::printf("    instance %d: job %s (%s)\n", i, label->c_str(), path->c_str());
            std::printf("      trigger %s: %s\n", trigger ? trigger->c_str() : "-", triggered ? "present" : "absent");
            std::printf("      job: %s\n", running ? jobState(label->c_str()).c_str() : "runwardd not running");
        }
    }

    const char* home = std::getenv("HOME");
    std::printf("logs:\n");
    if (home) printTail(std::string(home) + "/Library/Logs/Lumenforge/runwardd.log");
    return 0;
}

void addHostCommands(CLI::App& app) {
    CLI::App* host = commandGroup(app, "host", "What runs on this host");
    CLI::App* statusCmd = host->add_subcommand("status", "The job supervisor, the services' jobs and the logs");
    setAction(statusCmd, [] { return status(); });
}

}  // namespace

QUILLCTL_COMMANDS(addHostCommands);

}  // namespace quillctl
