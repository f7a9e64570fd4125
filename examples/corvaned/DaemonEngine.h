// The cluster daemon's engine: everything corvaned does, driven by the run
// loop of the thread that made it, so that tests run it in-process.
//
// Life: construction -> start() records the process in the PID file under
// "corvaned" with "Version" "2", observes the cluster notifications and
// starts the enabled services that the daemon runs itself -> notifications
// are served while the caller runs the thread's run loop -> a restart request
// or stop() finishes the engine (finished() turns true and the loop is
// stopped) -> destruction ends the service processes and removes the record.
//
// Notifications served:
//   "CorvaneDaemonRunningNotification2" (a ping, from anyone): answered with
//       a status notification "CorvaneStatusNotification2" from
//       "com.tessaly.corvane.corvaned" whose user information holds
//       "Version" "2" and "services", the kinds it runs.
//   "CorvaneDaemonRestartNotification2": the daemon's settings decide. With
//       "DaemonEnabled" of the cluster configuration false the engine ends
//       (Outcome::Stopped); otherwise it asks for a restart
//       (Outcome::Restart), which main carries out by executing itself anew.
//   "CorvanePrefsChangedNotification2": each entry of its "serviceList" names
//       a service kind; true starts the instances of a daemon-run service
//       (launch flag 1), false ends them, "Restart" ends them and starts them
//       again when the service is enabled. Services that the service manager
//       runs are left to it.
//   "CorvaneServiceRestartNotification2": "serviceType" is restarted as for
//       "Restart" above, when "uid" is absent or this process's user.
//
// Every service instance is a CTask of the service's executable with the
// argument vector of CServiceUtil::buildServiceArgs and this process's
// environment. An instance that ends by itself is logged and forgotten; it is
// not started again until asked.
//
// Threads: the engine belongs to the thread that made it; its notification
// handlers run on that thread's run loop. The monitor threads of the service
// tasks only post to that loop. Exceptions: start() throws the
// ferrocore::CException values of the PID file, and ferrocore::CParamException
// ("corvaned already running with PID %d") when a live daemon of this version
// is recorded; handlers log their failures and carry on.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <quillcore/control/QuillConfig.h>
#include <quillcore/logging/CQuillLogger.h>
#include <quillcore/platform/NotificationCenter.h>
#include <quillcore/platform/RunLoop.h>

namespace corvaned {

class CServiceProcess;

class CDaemonEngine final {
public:
    enum class Outcome { Running, Stopped, Restart };

    // Logs to `logger`, which must be started. Does nothing else yet.
    explicit CDaemonEngine(quill::CQuillLoggerRef logger);
    // Ends every service process (SIGTERM, then SIGKILL after five seconds)
    // and removes this process's PID-file record. Never throws.
    ~CDaemonEngine();
    CDaemonEngine(const CDaemonEngine&) = delete;
    CDaemonEngine& operator=(const CDaemonEngine&) = delete;

    // See the top of this file. Call once.
    void start();

    // Runs the calling thread's run loop until the engine finishes; returns
    // the outcome.
    Outcome run();

    // Finishes the engine with Outcome::Stopped (SIGTERM, SIGINT).
    void stop();

    Outcome outcome() const noexcept { return _outcome; }
    bool finished() const noexcept { return _outcome != Outcome::Running; }

    // The process IDs of the running instances of `kind`, by instance number.
    std::vector<std::int32_t> serviceProcessIDs(const std::string& kind) const;
    // The kinds with at least one running instance, sorted.
    std::vector<std::string> runningServices() const;

private:
    friend class CServiceProcess;

    void recordSelf();
    void removeRecord() noexcept;
    void startEnabledServices();
    // Starts the instances of `kind` that are not running; false (logged) when
    // the kind has no cache entry, is not daemon-run or cannot be started.
    bool startService(const std::string& kind);
    void stopService(const std::string& kind);
    void restartService(const std::string& kind);
    void finish(Outcome outcome);
    // On the loop, after a service process ended by itself.
    void serviceEnded(std::uint64_t id, int status);

    void onPing(const quill::platform::CNotification& notification);
    void onDaemonRestart(const quill::platform::CNotification& notification);
    void onPrefsChanged(const quill::platform::CNotification& notification);
    void onServiceRestart(const quill::platform::CNotification& notification);

    quill::CQuillLoggerRef _logger;
    quill::platform::CRunLoop& _loop;
    // Cleared by the destructor, so that posts from monitor threads that
    // arrive later do nothing.
    std::shared_ptr<CDaemonEngine*> _self;
    Outcome _outcome = Outcome::Running;
    bool _started = false;
    bool _recorded = false;
    std::int32_t _pid;
    std::uint64_t _nextID = 1;
    // Kind -> running instances.
    std::map<std::string, std::vector<std::unique_ptr<CServiceProcess>>> _services;
    int _observer = 0;
};

}  // namespace corvaned
