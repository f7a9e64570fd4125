#include "DaemonEngine.h"

#include <algorithm>
#include <csignal>
#include <ostream>

#include <unistd.h>

#include "../common/StopSignals.h"
#include <ferrocore/CException.h>
#include <ferrocore/ProcessUtilities.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/process/CTask.h>
#include <quillcore/servicemanager/CServiceUtil.h>

extern char** environ;

namespace corvaned {

namespace {

using quill::platform::CNotification;
namespace QN = quill::QuillNotification;
namespace QP = quill::QuillCorePrivate;

// How long a service process gets to end after SIGTERM before it is killed.
constexpr double kStopGraceSeconds = 5.0;

PLHolder<const PLString> text(const std::string& value) { return PLString::create(value); }

std::string str(PLStringRef value) { return value ? value->str() : std::string(); }

}  // namespace

// One instance of a daemon-run service. Its end is reported to the engine's
// loop, unless the engine is ending it itself (then nobody needs telling).
class CServiceProcess final : public quill::CTask {
public:
    CServiceProcess(std::uint64_t id, long instance, const char* path, const char* const* args,
                    std::weak_ptr<CDaemonEngine*> engine, quill::platform::CRunLoop& loop)
        : CTask(path, args, environ, nullptr), id(id), instance(instance), _engine(std::move(engine)), _loop(loop) {}
    ~CServiceProcess() override = default;

    const std::uint64_t id;
    const long instance;

    // SIGTERM, a bounded wait, then SIGKILL and a wait for the end.
    void end() {
        if (!isRunning()) return;
        terminate();
        if (waitForTaskWithTimeout(kStopGraceSeconds)) return;
        quill::platform::processSpawner().signalProcess(processID(), SIGKILL);
        waitForTask();
    }

protected:
    // The daemon keeps its stop signals blocked; the service must not start
    // with them blocked. Only async-signal-safe calls here.
    int on_exec() override {
        example::unblockStopSignals();
        return CTask::on_exec();
    }

    void on_exit(int status) override {
        // Copies first: after CTask::on_exit() this object may be gone.
        std::weak_ptr<CDaemonEngine*> engine = _engine;
        const std::uint64_t ended = id;
        _loop.post([engine, ended, status] {
            if (const auto self = engine.lock(); self && *self) (*self)->serviceEnded(ended, status);
        });
        CTask::on_exit(status);
    }

private:
    std::weak_ptr<CDaemonEngine*> _engine;
    quill::platform::CRunLoop& _loop;
};

CDaemonEngine::CDaemonEngine(quill::CQuillLoggerRef logger)
    : _logger(std::move(logger)),
      _loop(quill::platform::CRunLoop::current()),
      _self(std::make_shared<CDaemonEngine*>(this)),
      _pid(static_cast<std::int32_t>(getpid())) {}

CDaemonEngine::~CDaemonEngine() {
    quill::platform::notificationCenter().removeObserver(&_observer);
    *_self = nullptr;
    for (auto& [kind, processes] : _services) {
        for (auto& process : processes) process->terminate();
    }
    for (auto& [kind, processes] : _services) {
        for (auto& process : processes) process->end();
    }
    _services.clear();
    removeRecord();
    if (_started) _logger->log(3) << "corvaned " << _pid << " ended" << std::endl;
}

void CDaemonEngine::start() {
    _started = true;
    recordSelf();
    _logger->log(3) << "corvaned " << _pid << " started, version " << kCorvaneDaemonVersion << std::endl;

    auto& center = quill::platform::notificationCenter();
    using quill::platform::NotificationHandler;
    center.addObserver(&_observer, NotificationHandler([this](const CNotification& n) { onPing(n); }),
                       QN::kQuillDaemonRunningNotification, nullptr);
    center.addObserver(&_observer, NotificationHandler([this](const CNotification& n) { onDaemonRestart(n); }),
                       QN::kQuillDaemonRestartNotification, nullptr);
    center.addObserver(&_observer, NotificationHandler([this](const CNotification& n) { onPrefsChanged(n); }),
                       QN::kQuillPrefsChangedNotification, nullptr);
    center.addObserver(&_observer, NotificationHandler([this](const CNotification& n) { onServiceRestart(n); }),
                       QN::kQuillServiceRestartNotification, nullptr);

    startEnabledServices();
    signalPrefsPane(QN::kQuillDaemonStartedNotification, nullptr);
}

CDaemonEngine::Outcome CDaemonEngine::run() {
    while (!finished()) _loop.runFor(3600.0);
    return _outcome;
}

void CDaemonEngine::stop() {
    _logger->log(3) << "corvaned " << _pid << " asked to stop" << std::endl;
    finish(Outcome::Stopped);
}

void CDaemonEngine::finish(Outcome outcome) {
    if (finished()) return;
    _outcome = outcome;
    _loop.stop();
}

// The attributes and the list change under one exclusive lock, so a reader
// never sees the process listed without its version.
void CDaemonEngine::recordSelf() {
    const PLHolder<const PLString> name = text(kCorvaneDaemonName);
    quill::CServicePIDFile file(name.get());
    file.lockForRW();
    const quill::CPropertyListBasicFile::CFileLockMonitorRef unlock =
        ferrocore::makeShared<quill::CPropertyListBasicFile::CFileLockMonitor>(&file);
    file.refresh();
    std::vector<std::int32_t> pids;
    file.get(pids);
    for (const std::int32_t pid : pids) {
        if (pid == _pid || pid <= 0 || kill(pid, 0) != 0) continue;
        const ferrocore::CStringRef process = ferrocore::ProcessUtilities::processNameForID(pid);
        const PLHolder<const PLDictionary> attributes = file.processAttributes(pid);
        const auto* version = attributes ? PLDynamicCast<PLString>(attributes->get("Version")) : nullptr;
        if (process && process->utf8() == kCorvaneDaemonName && version && version->str() == kCorvaneDaemonVersion)
            throw ferrocore::CParamException(ferrocore::formatString("corvaned already running with PID %d", pid));
    }
    file.setProcessAttributes(_pid, QN::kQuillDaemonID, name.get(), text(kCorvaneDaemonVersion).get());
    pids.erase(std::remove(pids.begin(), pids.end(), _pid), pids.end());
    pids.push_back(_pid);
    file.put(pids);
    _recorded = true;
}

void CDaemonEngine::removeRecord() noexcept {
    if (!_recorded) return;
    try {
        quill::CServicePIDFile file(text(kCorvaneDaemonName).get());
        file.lockForRW();
        const quill::CPropertyListBasicFile::CFileLockMonitorRef unlock =
            ferrocore::makeShared<quill::CPropertyListBasicFile::CFileLockMonitor>(&file);
        file.refresh();
        std::vector<std::int32_t> pids;
        file.get(pids);
        pids.erase(std::remove(pids.begin(), pids.end(), _pid), pids.end());
        file.setProcessAttributes(_pid, nullptr);
        file.put(pids);
        _recorded = false;
    } catch (const std::exception& e) {
        _logger->log(3) << "corvaned " << _pid << " could not remove its PID record: " << e.what() << std::endl;
    }
}

void CDaemonEngine::startEnabledServices() {
    std::vector<quill::CServiceCacheEntry> entries;
    try {
        quill::CServiceCacheFile cache;
        cache.get(entries);
    } catch (const ferrocore::CException& e) {
        _logger->log(3) << "Can't read the service cache: " << e.what() << std::endl;
        return;
    }
    for (const quill::CServiceCacheEntry& entry : entries) {
        if (entry.enabled() && quill::CServiceUtil::launchFlagForService(entry) <= 1) startService(str(entry.name()));
    }
}

bool CDaemonEngine::startService(const std::string& kind) {
    try {
        quill::CServiceCacheFile cache;
        quill::CServiceCacheEntry entry;
        if (!cache.get(text(kind).get(), entry)) {
            _logger->log(3) << "No service " << kind << " in the service cache" << std::endl;
            return false;
        }
        if (quill::CServiceUtil::launchFlagForService(entry) > 1) {
            _logger->log(4) << "Service " << kind << " is run by the service manager" << std::endl;
            return false;
        }
        entry.updateRuntimeServicePath();
        quill::CServiceConfigFile configFile(text(kind).get());
        std::vector<quill::CServiceConfigEntry> configs;
        configFile.get(configs);

        auto& running = _services[kind];
        const std::int32_t count = quill::CServiceCacheEntry::ConvertToRealInstanceCount(entry.instances());
        for (long instance = 0; instance < count; ++instance) {
            const bool alive = std::any_of(running.begin(), running.end(), [&](const auto& process) {
                return process->instance == instance && process->isRunning();
            });
            if (alive) continue;
            const quill::CServiceConfigEntry config = static_cast<std::size_t>(instance) < configs.size()
                                                          ? configs[static_cast<std::size_t>(instance)]
                                                          : quill::CServiceConfigEntry();
            const auto args = quill::CServiceUtil::buildServiceArgs(entry, config, instance);
            std::vector<const char*> argv;
            for (std::size_t i = 1; i < args.size(); ++i) argv.push_back(args[i]->c_str());
            argv.push_back(nullptr);
            auto process =
                std::make_unique<CServiceProcess>(_nextID++, instance, args[0]->c_str(), argv.data(), _self, _loop);
            if (const int error = process->launch(); error != 0) {
                _logger->log(3) << "Can't launch " << kind << " instance " << instance << " (" << args[0]->utf8()
                                << "), error = " << error << std::endl;
                continue;
            }
            _logger->log(3) << "Started " << kind << " instance " << instance << " as PID " << process->processID()
                            << std::endl;
            running.push_back(std::move(process));
        }
        return true;
    } catch (const ferrocore::CException& e) {
        _logger->log(3) << "Can't start " << kind << ": " << e.what() << std::endl;
        return false;
    }
}

void CDaemonEngine::stopService(const std::string& kind) {
    const auto it = _services.find(kind);
    if (it == _services.end()) return;
    for (auto& process : it->second) process->terminate();
    for (auto& process : it->second) {
        const std::int32_t pid = process->processID();
        process->end();
        _logger->log(3) << "Stopped " << kind << " instance " << process->instance << " (PID " << pid << ")"
                        << std::endl;
    }
    _services.erase(it);
}

void CDaemonEngine::restartService(const std::string& kind) {
    stopService(kind);
    try {
        quill::CServiceCacheFile cache;
        quill::CServiceCacheEntry entry;
        if (cache.get(text(kind).get(), entry) && entry.enabled()) {
            startService(kind);
        } else {
            _logger->log(3) << "Not restarting " << kind << ": it is not installed or not enabled" << std::endl;
        }
    } catch (const ferrocore::CException& e) {
        _logger->log(3) << "Can't restart " << kind << ": " << e.what() << std::endl;
    }
}

void CDaemonEngine::serviceEnded(std::uint64_t id, int status) {
    for (auto it = _services.begin(); it != _services.end(); ++it) {
        auto& processes = it->second;
        const auto found =
            std::find_if(processes.begin(), processes.end(), [id](const auto& process) { return process->id == id; });
        if (found == processes.end()) continue;
        _logger->log(3) << "Service " << it->first << " instance " << (*found)->instance << " (PID "
                        << (*found)->processID() << ") ended, status " << status << std::endl;
        (*found)->waitForTask();  // the monitor thread is done with it once this returns
        processes.erase(found);
        if (processes.empty()) _services.erase(it);
        return;
    }
}

std::vector<std::int32_t> CDaemonEngine::serviceProcessIDs(const std::string& kind) const {
    std::vector<std::int32_t> pids;
    const auto it = _services.find(kind);
    if (it == _services.end()) return pids;
    std::vector<std::pair<long, std::int32_t>> byInstance;
    for (const auto& process : it->second) {
        if (process->isRunning()) byInstance.emplace_back(process->instance, process->processID());
    }
    std::sort(byInstance.begin(), byInstance.end());
    for (const auto& [instance, pid] : byInstance) pids.push_back(pid);
    return pids;
}

std::vector<std::string> CDaemonEngine::runningServices() const {
    std::vector<std::string> kinds;
    for (const auto& [kind, processes] : _services) {
        if (!processes.empty()) kinds.push_back(kind);
    }
    return kinds;
}

void CDaemonEngine::onPing(const CNotification& notification) {
    _logger->log(4) << "Ping from " << (notification.sender ? notification.sender->str() : std::string("(none)"))
                    << std::endl;
    PLHolder<PLMutableDictionary> info = PLMutableDictionary::create();
    info->set(text("Version"), text(kCorvaneDaemonVersion));
    PLHolder<PLMutableArray> kinds = PLMutableArray::create();
    for (const std::string& kind : runningServices()) kinds->append(text(kind));
    info->set(text("services"), std::move(kinds));
    sendStatusNotification(QN::kQuillStatusNotification, QN::kQuillDaemonID, text("corvaned running").get(),
                           info.get());
}

void CDaemonEngine::onDaemonRestart(const CNotification& notification) {
    const auto* cancel =
        notification.userInfo ? PLDynamicCast<PLBoolean>(notification.userInfo->get(QP::kDictKeyCancelJobs)) : nullptr;
    const bool cancelJobs = cancel && cancel->value();
    bool enabled = true;
    try {
        const quill::CQuillConfigFile config;
        enabled = config.daemonEnabled;
    } catch (const ferrocore::CException& e) {
        _logger->log(3) << "Can't read the cluster configuration, restarting: " << e.what() << std::endl;
    }
    _logger->log(3) << "Restart requested" << (cancelJobs ? " (cancelling active jobs)" : "") << "; "
                    << (enabled ? "restarting" : "the daemon is disabled, ending") << std::endl;
    finish(enabled ? Outcome::Restart : Outcome::Stopped);
}

void CDaemonEngine::onPrefsChanged(const CNotification& notification) {
    const auto* list = notification.userInfo
                           ? PLDynamicCast<PLDictionary>(notification.userInfo->get(QP::kDictKeyServiceList))
                           : nullptr;
    if (!list) {
        _logger->log(4) << "Preferences changed" << std::endl;
        return;
    }
    // Sorted, so that the services start in the same order every time.
    std::vector<std::pair<std::string, PLHolder<const PLObject>>> changes;
    for (const auto& [key, value] : list->entries()) {
        if (const auto* kind = PLDynamicCast<PLString>(key.get())) changes.emplace_back(kind->str(), value);
    }
    std::sort(changes.begin(), changes.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [kind, value] : changes) {
        if (const auto* flag = PLDynamicCast<PLBoolean>(value.get())) {
            if (flag->value())
                startService(kind);
            else
                stopService(kind);
        } else if (const auto* word = PLDynamicCast<PLString>(value.get()); word && word->str() == "Restart") {
            restartService(kind);
        } else {
            _logger->log(3) << "Ignoring the change of " << kind << ": neither a flag nor \"Restart\"" << std::endl;
        }
    }
}

void CDaemonEngine::onServiceRestart(const CNotification& notification) {
    if (!notification.userInfo) return;
    const auto* kind = PLDynamicCast<PLString>(notification.userInfo->get(QP::kDictKeyServiceType));
    const auto* user = PLDynamicCast<PLNumber>(notification.userInfo->get(QP::kDictKeyUserID));
    if (!kind) return;
    if (user && user->int64Value() != static_cast<std::int64_t>(geteuid())) return;
    restartService(kind->str());
}

}  // namespace corvaned
