// quillctl daemon start | stop | restart | ping | status: the cluster daemon
// of this user, through the library's daemon-lifecycle functions.
//
// The daemon decides from its settings whether a restart request ends it:
// with "DaemonEnabled" of the cluster configuration false it ends, otherwise
// it restarts. So "stop" clears "DaemonEnabled" before it sends the request,
// and "start" sets it again.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <sys/syscall.h>
#include <unistd.h>

#include "Commands.h"
#include <ferrocore/CException.h>
#include <ferrocore/ProcessUtilities.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServicePIDFile.h>

namespace quillctl {

namespace {

using quill::platform::CNotification;
using quill::platform::CRunLoop;

// Sets "DaemonEnabled" when it differs; the write replaces only the cluster
// configuration's own section.
void setDaemonEnabled(bool enabled) {
    quill::CQuillConfigFile config;
    if (config.daemonEnabled == enabled) return;
    config.daemonEnabled = enabled;
    config.flush();
}

struct DaemonProcess {
    std::int32_t pid;
    std::string version;  // "" when the record has none
    bool recorded;
};

// The live "corvaned" processes of this user, with what the PID file says of
// them.
std::vector<DaemonProcess> daemonProcesses() {
    quill::CServicePIDFile file(PLString::create(kCorvaneDaemonName).get());
    std::vector<std::int32_t> recorded;
    file.get(recorded);
    std::vector<DaemonProcess> found;
    for (const pid_t pid : ferrocore::ProcessUtilities::processIDsForName(kCorvaneDaemonName, geteuid())) {
        DaemonProcess process{static_cast<std::int32_t>(pid), "", false};
        process.recorded = std::find(recorded.begin(), recorded.end(), process.pid) != recorded.end();
        if (const PLHolder<const PLDictionary> attributes = file.processAttributes(process.pid)) {
            if (const auto* version = PLDynamicCast<PLString>(attributes->get("Version")))
                process.version = version->str();
        }
        found.push_back(process);
    }
    return found;
}

std::string pidList(const std::vector<DaemonProcess>& processes, bool ours) {
    std::string out;
    for (const DaemonProcess& process : processes) {
        const bool isOurs = process.recorded && process.version == kCorvaneDaemonVersion;
        if (isOurs != ours) continue;
        out += out.empty() ? "" : ", ";
        out += std::to_string(process.pid);
        if (!ours) {
            out += !process.recorded         ? " (no record)"
                   : process.version.empty() ? " (no version)"
                                             : " (version " + process.version + ")";
        }
    }
    return out;
}

int status() {
    const bool running = isDaemonRunning();
    const bool other = IsOtherVersionOfDaemonRunning();
    const std::vector<DaemonProcess> processes = daemonProcesses();
    if (running) {
        std::printf("corvaned: running, version %s, PID %s\n", kCorvaneDaemonVersion, pidList(processes, true).c_str());
    } else {
        std::printf("corvaned: not running\n");
    }
    if (other) {
        const std::string pids = pidList(processes, false);
        std::printf("another version of corvaned is running%s%s\n", pids.empty() ? "" : ": PID ", pids.c_str());
    }
    return running ? 0 : 1;
}

int start() {
    setDaemonEnabled(true);
    try {
        startDaemon();
    } catch (const ferrocore::CException& e) {
        printError(e.what());
        return 1;
    }
    std::printf("corvaned: running, PID %s\n", pidList(daemonProcesses(), true).c_str());
    return 0;
}

// Runs this thread's loop until `done` or `seconds` pass.
bool waitFor(const std::function<bool()>& done, double seconds) { return CRunLoop::current().runUntil(done, seconds); }

int stop(bool cancelJobs, double timeout) {
    setDaemonEnabled(false);
    if (!isDaemonRunning()) {
        std::printf("corvaned: not running\n");
        return 0;
    }
    // Waits for the daemon processes themselves to end: a process descriptor
    // becomes readable when its process has gone.
    std::vector<quill::platform::CFileDescriptor> handles;
    for (const DaemonProcess& process : daemonProcesses()) {
        if (!process.recorded || process.version != kCorvaneDaemonVersion) continue;
        quill::platform::CFileDescriptor handle(static_cast<int>(syscall(SYS_pidfd_open, process.pid, 0)));
        if (handle) handles.push_back(std::move(handle));
    }
    // A process descriptor stays readable, so each source removes itself.
    std::size_t ended = 0;
    std::vector<quill::platform::CFileDescriptorSource> sources(handles.size());
    for (std::size_t i = 0; i < handles.size(); ++i) {
        sources[i] = CRunLoop::current().addFileDescriptorSource(handles[i].get(), CRunLoop::kReadable,
                                                                 [&ended, &sources, i](int, unsigned) {
                                                                     ++ended;
                                                                     sources[i].remove();
                                                                 });
    }
    stopDaemon(cancelJobs);
    if (!waitFor([&] { return ended == handles.size() && !isDaemonRunning(); }, timeout)) {
        printError("corvaned is still running after " + std::to_string(static_cast<int>(timeout)) + " s");
        return 1;
    }
    std::printf("corvaned: stopped\n");
    return 0;
}

int restart(bool cancelJobs) {
    if (!isDaemonRunning()) {
        printError("corvaned is not running");
        return 1;
    }
    restartDaemon(cancelJobs);
    std::printf("corvaned: restart requested\n");
    return 0;
}

int ping(double timeout) {
    bool answered = false;
    std::string reply;
    int observer = 0;
    quill::platform::notificationCenter().addObserver(
        &observer, quill::platform::NotificationHandler([&](const CNotification& n) {
            answered = true;
            const auto* message = n.userInfo ? PLDynamicCast<PLString>(n.userInfo->get("message")) : nullptr;
            const auto* pid = n.userInfo ? PLDynamicCast<PLNumber>(n.userInfo->get("pid")) : nullptr;
            reply = (message ? message->str() : std::string("(no message)")) +
                    (pid ? ", PID " + std::to_string(pid->int64Value()) : std::string());
            CRunLoop::current().stop();
        }),
        quill::QuillNotification::kQuillStatusNotification, quill::QuillNotification::kQuillDaemonID);
    pingDaemon();
    waitFor([&] { return answered; }, timeout);
    quill::platform::notificationCenter().removeObserver(&observer);
    if (!answered) {
        printError("no answer from corvaned within " + std::to_string(static_cast<int>(timeout)) + " s");
        return 1;
    }
    std::printf("corvaned answered: %s\n", reply.c_str());
    return 0;
}

void addDaemonCommands(CLI::App& app) {
    CLI::App* daemon = app.add_subcommand("daemon", "Start, stop, restart, ping and show the cluster daemon");
    daemon->require_subcommand(1);

    CLI::App* startCmd = daemon->add_subcommand("start", "Start corvaned unless it runs");
    startCmd->footer(
        "Sets DaemonEnabled in the cluster configuration, then starts\n"
        "Corvane.framework/Resources/corvaned and waits (about ten seconds at most)\n"
        "until it has recorded itself in the PID file.");
    setAction(startCmd, [] { return start(); });

    struct StopOptions {
        bool cancelJobs = false;
        double timeout = 15.0;
    };
    auto stopOptions = std::make_shared<StopOptions>();
    CLI::App* stopCmd = daemon->add_subcommand("stop", "Ask corvaned to end and wait until it has");
    stopCmd->add_flag("--cancel-jobs", stopOptions->cancelJobs, "Cancel the active jobs");
    stopCmd->add_option("--timeout", stopOptions->timeout, "Seconds to wait (default 15)")->check(CLI::PositiveNumber);
    stopCmd->footer(
        "Clears DaemonEnabled in the cluster configuration, so that the daemon ends on\n"
        "the restart request it is sent.");
    setAction(stopCmd, [stopOptions] { return stop(stopOptions->cancelJobs, stopOptions->timeout); });

    auto cancelJobs = std::make_shared<bool>(false);
    CLI::App* restartCmd = daemon->add_subcommand("restart", "Ask corvaned to restart");
    restartCmd->add_flag("--cancel-jobs", *cancelJobs, "Cancel the active jobs");
    restartCmd->footer("With DaemonEnabled false in the cluster configuration the daemon ends instead.");
    setAction(restartCmd, [cancelJobs] { return restart(*cancelJobs); });

    auto pingTimeout = std::make_shared<double>(5.0);
    CLI::App* pingCmd = daemon->add_subcommand("ping", "Ping corvaned and wait for its status notification");
    pingCmd->add_option("--timeout", *pingTimeout, "Seconds to wait (default 5)")->check(CLI::PositiveNumber);
    setAction(pingCmd, [pingTimeout] { return ping(*pingTimeout); });

    CLI::App* statusCmd = daemon->add_subcommand("status", "Whether corvaned runs, this version or another");
    statusCmd->footer(
        "Exit status 0 when this library's daemon (version 2) runs, 1 otherwise.\n"
        "Processes named corvaned that are not recorded as version 2 are listed as\n"
        "another version, with what their record says.");
    setAction(statusCmd, [] { return status(); });
}

}  // namespace

QUILLCTL_COMMANDS(addDaemonCommands);

}  // namespace quillctl
