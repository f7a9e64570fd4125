#include <cerrno>
#include <cstring>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "quillcore/servicemanager/HostPaths.h"
#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <ferrocore/ProcessUtilities.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/servicemanager/CRunwardCtl.h>
#include <quillcore/servicemanager/CRunwardCtlPList.h>
#include <quillcore/servicemanager/CServiceUtil.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kClientsName, "corvaneclients");
PL_CONSTANT_STRING(kRestartValue, "Restart");

// Job directories are made with these permission bits.
inline constexpr std::uint32_t kJobDirectoryMode = 0755;
inline constexpr std::uint32_t kConfigDirectoryMode = 0755;
inline constexpr int kExceptionKindSystemCall = 4;

std::int32_t realInstanceCount(const CServiceCacheEntry& entry) {
    return CServiceCacheEntry::ConvertToRealInstanceCount(entry.instances());
}

// Writes the job definition of `entry`'s instance `instance`.
PLHolder<const PLDictionary> writeJobDefinition(const CServiceCacheEntry& entry, unsigned instance) {
    CRunwardCtlPList job(CRunwardCtlPList::expandedPListFilePathForService(entry, instance));
    job.setPListData(CRunwardCtlPList::plistDataForService(entry, instance).get());
    job.makeParentDirIfNeeded(kJobDirectoryMode);
    job.flush();
    return PLHolder<const PLDictionary>::retain(PLDynamicCast<PLDictionary>(job.plistData()));
}

// Starts (`enable`) or stops one instance of a service of the service
// manager: its trigger file, and the job definition loaded.
void syncJobInstance(const CServiceCacheEntry& entry, unsigned instance, bool enable) {
    CRunwardCtlPList job(CRunwardCtlPList::expandedPListFilePathForService(entry, instance));
    CRunwardCtl control(job.filePath(), 0, 0);
    const ferrocore::CStringRef label = job.getLabel();
    const ferrocore::CStringRef trigger = job.getTransientTriggerFilePath(true);
    if (enable) {
        CRunwardCtlPList::addTriggerFile(trigger);
        // isLoaded never reports a loaded job, so the load always runs.
        if (!control.isLoaded(label)) control.load();
    } else {
        CRunwardCtlPList::removeTriggerFile(trigger);
        // Never taken (see isLoaded): the job stays loaded, and the service
        // manager ends the process because its trigger file is gone.
        if (control.isLoaded(label)) control.unload();
    }
}

// The cache entry of `kind` when it exists and is a job of the service
// manager.
std::optional<CServiceCacheEntry> serviceManagerEntry(PLStringRef kind) {
    if (!kind) return std::nullopt;
    const CServiceCacheFile cache;
    CServiceCacheEntry entry;
    if (!cache.get(kind, entry)) return std::nullopt;
    if (CServiceUtil::launchFlagForService(entry) != kServiceLaunchedByServiceManager) return std::nullopt;
    return entry;
}

std::optional<platform::CBundle> openBundle(const PLURL* url) {
    if (!url) return std::nullopt;
    return platform::CBundle::open(url);
}

// The executable of the bundle for `entry`: its auxiliary executable when it
// names one, else the main executable.
PLHolder<const PLURL> executableOf(const platform::CBundle& bundle, const CServiceCacheEntry& entry) {
    if (entry.executable() && !entry.executable()->empty())
        return bundle.auxiliaryExecutableURL(entry.executable()->utf8());
    return bundle.executableURL();
}

// The three service kinds of the client application's bundles.
struct LumenforgeKinds {
    PLHolder<const PLString> jobController, transcoder, transcoder32;
};

LumenforgeKinds lumenforgeKinds() {
    const PLString* kinds[3] = {nullptr, nullptr, nullptr};
    getLumenforgeServiceBundleIDs(&kinds[0], &kinds[1], &kinds[2]);
    return {PLHolder<const PLString>::adopt(kinds[0]), PLHolder<const PLString>::adopt(kinds[1]),
            PLHolder<const PLString>::adopt(kinds[2])};
}

PLHolder<const PLArray> kindArray(const LumenforgeKinds& kinds, bool with32Bit) {
    PLHolder<PLMutableArray> array = PLMutableArray::create(3);
    array->append(kinds.jobController);
    array->append(kinds.transcoder);
    if (with32Bit && kinds.transcoder32) array->append(kinds.transcoder32);
    return array;
}

void sendServiceRestart(PLMutableDictionary& info) {
    PLUtil::PLDictSetInt(&info, QuillCorePrivate::kDictKeyUserID, platform::processSpawner().effectiveUserID());
    signalFrom(QuillNotification::kQuillServiceRestartNotification, nullptr, &info);
}

void requestServiceRestart(PLStringRef kind) {
    const PLHolder<PLMutableDictionary> info = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSetString(info.get(), QuillCorePrivate::kDictKeyServiceType, kind);
    sendServiceRestart(*info);
}

void requestJobControllerRestart(bool cancelJobs) {
    const PLHolder<PLMutableDictionary> info = PLUtil::PLDictMakeMutable();
    const PLHolder<const PLString> kind = PLString::create(QuillCorePrivate::kTolvaClusterAdminServiceKind);
    PLUtil::PLDictSetString(info.get(), QuillCorePrivate::kDictKeyServiceType, kind.get());
    PLUtil::PLDictSetBoolean(info.get(), QuillCorePrivate::kDictKeyCancelJobs, cancelJobs ? 1 : 0);
    sendServiceRestart(*info);
}

void logToConsole(const std::string& text) { PLUtil::LogToConsole(text.c_str()); }

// Changes the cache entry of `kind` with `change` and writes the cache; false
// when there is no entry (or `change` declines).
template <class Change>
bool changeEntry(PLStringRef kind, Change&& change) {
    if (!kind) return false;
    CServiceCacheFile cache;
    CServiceCacheEntry entry;
    if (!cache.get(kind, entry)) return false;
    if (!change(entry)) return false;
    cache.put(entry);
    cache.flush();
    return true;
}

}  // namespace

}  // namespace quill

using namespace quill;

bool installService(const PLURL* bundleURL) { return installServiceWithName(nullptr, bundleURL); }

bool installServiceWithName(const PLString* name, const PLURL* bundleURL) {
    CServiceCacheFile cache;
    const std::optional<platform::CBundle> bundle = openBundle(bundleURL);
    if (!bundle) return false;
    const PLHolder<const PLString> kind = PLHolder<const PLString>::adopt(getServiceKindFromBundle(&*bundle));
    if (!kind) return false;
    const PLStringRef key = name ? name : kind.get();

    CServiceCacheEntry old;
    const bool hasOld = cache.get(key, old);

    const PLDictionary* config = PLDynamicCast<PLDictionary>(bundle->infoValue(kCorvaneServiceConfigKey));
    if (!config) return false;
    CServiceCacheEntry entry(key, config);

    const PLHolder<const PLURL> executable = executableOf(*bundle, entry);
    if (!executable) return false;
    const PLHolder<const PLString> executablePath = PLString::create(executable->fileSystemPath());
    entry.setBundlePath(PLString::create(bundleURL->fileSystemPath()).get());
    entry.setPath(executablePath.get());
    // The user's choice of instances survives a reinstall.
    if (hasOld && old.instances() > 0) entry.setInstances(old.instances());

    bool result = false;
    const bool sameInstall = hasOld && old.version() >= entry.version() && PLEqual(old.path(), entry.path());
    if (!sameInstall) {
        cache.put(entry);
        // The result is that of the flush.
        result = cache.flush();
    }
    if (CServiceUtil::launchFlagForService(entry) == kServiceLaunchedByServiceManager) {
        const std::int32_t count = realInstanceCount(entry);
        for (std::int32_t i = 0; i < count; ++i) writeJobDefinition(entry, static_cast<unsigned>(i));
    }
    return result;
}

void syncServices(const PLArray* kinds) {
    PLHolder<PLMutableDictionary> serviceList;
    if (kinds && kinds->count() > 0) {
        serviceList = PLUtil::PLDictMakeMutable();
        const CServiceCacheFile cache;
        for (const auto& element : kinds->values()) {
            const PLString* kind = PLDynamicCast<PLString>(element.get());
            if (!kind) continue;
            CServiceCacheEntry entry;
            if (!cache.get(kind, entry)) continue;
            const int flag = CServiceUtil::launchFlagForService(entry);
            if (flag <= kServiceLaunchedByDaemon) {
                PLUtil::PLDictSetBoolean(serviceList.get(), kind, entry.enabled() ? 1 : 0);
            } else if (flag == kServiceLaunchedByServiceManager) {
                const std::int32_t count = realInstanceCount(entry);
                for (std::int32_t i = 0; i < count; ++i)
                    syncJobInstance(entry, static_cast<unsigned>(i), entry.enabled());
            }
        }
    }
    PLHolder<PLMutableDictionary> info;
    if (serviceList && serviceList->count() > 0) {
        info = PLUtil::PLDictMakeMutable();
        PLUtil::PLDictSet(info.get(), QuillCorePrivate::kDictKeyServiceList, serviceList.get());
    }
    signalDaemon(QuillNotification::kQuillPrefsChangedNotification, info.get());
}

void startCorvaneServices() {
    try {
        startDaemon();
    } catch (const ferrocore::CException& e) {
        logToConsole(ferrocore::formatString(
            "\nQuillConfig::startCorvaneServices failed, exception = %s.\nServices for this computer couldn't be "
            "launched. This is most likely caused by the corvaned daemon not running. Please check the log for any "
            "clues.\n",
            e.message()));
    }
}

void startLumenforgeServices() {
    try {
        const LumenforgeKinds kinds = lumenforgeKinds();
        if (kinds.jobController && kinds.transcoder) {
            addCorvaneClient();
            startDaemon();
            syncServices(kindArray(kinds, ferrocore::ProcessUtilities::Is32BitRuntimeAvailable()).get());
        }
        // Intended: the preferences-changed notification goes out once more,
        // without a service list, in every case.
        syncServices(nullptr);
    } catch (const ferrocore::CException& e) {
        logToConsole(ferrocore::formatString(
            "\nQuillConfig::startLumenforgeServices failed, exception = %s.\nServices for \"This Computer\" couldn't "
            "be launched. This is most likely caused by the corvaned daemon not running. Please check the log for any "
            "clues.\n",
            e.message()));
    }
}

void syncLumenforgeServices() {
    const LumenforgeKinds kinds = lumenforgeKinds();
    // Unlike startLumenforgeServices: no daemon start and no test for a
    // 32-bit runtime.
    if (kinds.jobController && kinds.transcoder) syncServices(kindArray(kinds, true).get());
}

int addCorvaneClient() {
    const std::optional<std::string> directory =
        servicemanager::expandTildeInFilePath(QuillCorePrivate::kQuillConfigPath->utf8());
    if (!directory) throw ferrocore::CNullPointerException("Error: home directory is null!");
    const std::error_code ec = platform::host().createDirectory(*directory, kConfigDirectoryMode);
    if (ec && ec != std::errc::file_exists)
        throw ferrocore::CException(
            kExceptionKindSystemCall,
            ferrocore::formatString("Couldn't create directory \"%s\", error = %s", *directory, ec.message()),
            ec.value());
    CServicePIDFile clients(kClientsName);
    std::vector<std::int32_t> pids;
    clients.get(pids);
    const std::int32_t self = platform::host().processID();
    for (const std::int32_t pid : pids) {
        if (pid == self) return 0;
    }
    pids.push_back(self);
    clients.put(pids);
    return 1;
}

void restartCorvaneServices(bool cancelJobs) {
    try {
        restartCorvaneJCService(cancelJobs);
        for (const char* kind :
             {QuillCorePrivate::kTolvaTranscoderServiceKind, QuillCorePrivate::kTolvaTranscoder32bitServiceKind,
              QuillCorePrivate::kTranscoderServiceKind, QuillCorePrivate::kTolvaContentControllerServiceKind,
              QuillCorePrivate::kContentAgentServiceKind})
            restartCorvaneService(PLString::create(kind).get());
    } catch (const ferrocore::CException& e) {
        logToConsole(
            ferrocore::formatString("QuillConfig::restartCorvaneServices failed, exception = %s.\n", e.message()));
    }
}

void restartCorvaneJCService(bool cancelJobs) {
    try {
        requestJobControllerRestart(cancelJobs);
    } catch (const ferrocore::CException& e) {
        logToConsole(
            ferrocore::formatString("QuillConfig::restartCorvaneJCService failed, exception = %s.\n", e.message()));
    }
}

void restartCorvaneService(const PLString* kind) {
    try {
        requestServiceRestart(kind);
    } catch (const ferrocore::CException& e) {
        logToConsole(ferrocore::formatString("QuillConfig::restartCorvaneService(%s) failed, exception = %s.\n",
                                             kind ? kind->utf8() : std::string_view("(null)"), e.message()));
    }
}

void restartServices(const PLArray* kinds) {
    const PLHolder<PLMutableDictionary> serviceList = PLUtil::PLDictMakeMutable();
    if (kinds) {
        for (const auto& element : kinds->values()) {
            if (const PLString* kind = PLDynamicCast<PLString>(element.get()))
                PLUtil::PLDictSet(serviceList.get(), kind, kRestartValue);
        }
    }
    const PLHolder<PLMutableDictionary> info = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSet(info.get(), QuillCorePrivate::kDictKeyServiceList, serviceList.get());
    signalDaemon(QuillNotification::kQuillPrefsChangedNotification, info.get());
}

bool removeService(const PLString* kind) {
    if (!kind) return false;
    CServiceCacheFile cache;
    if (!cache.remove(kind)) return false;
    cache.flush();
    return true;
}

bool removeServiceByPath(const PLString* bundlePath) {
    if (!bundlePath) return false;
    const std::optional<platform::CBundle> bundle = platform::CBundle::open(bundlePath->utf8());
    if (!bundle) return false;
    const PLHolder<const PLString> kind = PLHolder<const PLString>::adopt(getServiceKindFromBundle(&*bundle));
    return kind && removeService(kind.get());
}

bool serviceInstalled(const PLString* kind) {
    if (!kind) return false;
    CServiceCacheEntry entry;
    return CServiceCacheFile().get(kind, entry);
}

bool serviceEnabled(const PLString* kind) {
    if (!kind) return false;
    CServiceCacheEntry entry;
    return CServiceCacheFile().get(kind, entry) && entry.enabled();
}

bool isServiceRunning(const PLString* kind) {
    if (!kind) return false;
    std::vector<std::int32_t> pids;
    CServicePIDFile(kind).get(pids);
    for (const std::int32_t pid : pids) {
        if (pid > 0 && !platform::processSpawner().signalProcess(pid, 0)) return true;
    }
    return false;
}

bool enableService(const PLString* kind) {
    return changeEntry(kind, [](CServiceCacheEntry& entry) {
        entry.setEnabled(true);
        return true;
    });
}

bool disableService(const PLString* kind) {
    return changeEntry(kind, [](CServiceCacheEntry& entry) {
        entry.setEnabled(false);
        return true;
    });
}

bool resetServiceEntry(const PLString* kind) {
    return changeEntry(kind, [](CServiceCacheEntry& entry) {
        if (!entry.bundlePath()) return false;
        const std::optional<platform::CBundle> bundle = platform::CBundle::open(entry.bundlePath()->utf8());
        if (!bundle) return false;
        const PLDictionary* config = PLDynamicCast<PLDictionary>(bundle->infoValue(kCorvaneServiceConfigKey));
        if (!config) return false;
        CServiceCacheEntry fresh(entry.name(), config);
        fresh.setBundlePath(entry.bundlePath());
        fresh.setPath(entry.path());
        entry = std::move(fresh);
        return true;
    });
}

void installDynamicServiceInstances(const PLString* kind, std::int32_t count) {
    const std::optional<CServiceCacheEntry> entry = serviceManagerEntry(kind);
    if (!entry) return;
    const std::int32_t first = realInstanceCount(*entry);
    for (std::int32_t i = 0; i < count; ++i) writeJobDefinition(*entry, static_cast<unsigned>(first + i));
}

void syncDynamicServiceInstances(const PLString* kind, std::int32_t count, bool enable) {
    const std::optional<CServiceCacheEntry> entry = serviceManagerEntry(kind);
    if (!entry) return;
    const std::int32_t first = realInstanceCount(*entry);
    for (std::int32_t i = 0; i < count; ++i) syncJobInstance(*entry, static_cast<unsigned>(first + i), enable);
}

const PLString* installDynamicServiceInstance(const PLString* kind, std::int32_t n) {
    const std::optional<CServiceCacheEntry> entry = serviceManagerEntry(kind);
    if (!entry || n < 0) return nullptr;
    const unsigned instance = static_cast<unsigned>(realInstanceCount(*entry) + n);
    const PLHolder<const PLDictionary> job = writeJobDefinition(*entry, instance);
    CRunwardCtlPList written(nullptr);
    written.setPListData(job.get());
    const std::vector<ferrocore::CStringRef> arguments = written.getProgramArguments();
    for (std::size_t i = 0; i + 1 < arguments.size(); ++i) {
        if (arguments[i]->utf8() == "-id") return PLString::create(arguments[i + 1]->utf8()).detach();
    }
    return nullptr;
}

void syncDynamicServiceInstance(const PLString* kind, std::int32_t n, bool enable) {
    const std::optional<CServiceCacheEntry> entry = serviceManagerEntry(kind);
    if (!entry || n < 0) return;
    syncJobInstance(*entry, static_cast<unsigned>(realInstanceCount(*entry) + n), enable);
}
