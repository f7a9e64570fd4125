#include <cerrno>
#include <cmath>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include <ferrocore/CException.h>
#include <ferrocore/Format.h>
#include <ferrocore/ProcessUtilities.h>
#include <quillcore/control/QuillConfig.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/control/QuillNotification.h>
#include <quillcore/platform/Bundle.h>
#include <quillcore/platform/Host.h>
#include <quillcore/platform/ProcessSpawner.h>
#include <quillcore/platform/RunLoop.h>
#include <quillcore/plist/CServicePIDFile.h>
#include <quillcore/util/PLUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kDaemonName, "corvaned");
PL_CONSTANT_STRING(kRestartSender, "corvaneprefs");

// How long startDaemon waits for the daemon to record itself: the wait ends
// once more than this many whole seconds have passed, so about ten seconds.
inline constexpr long kDaemonStartSeconds = 9;
inline constexpr double kDaemonStartStep = 0.1;

// Parts of a file's mode word (st_mode).
inline constexpr std::uint32_t kFileTypeMask = 0170000;
inline constexpr std::uint32_t kRegularFileType = 0100000;
inline constexpr std::uint32_t kAnyExecuteBits = 0111;

bool processExists(std::int32_t pid) { return pid > 0 && !platform::processSpawner().signalProcess(pid, 0); }

bool isThisVersion(PLStringRef version) { return version && version->utf8() == kCorvaneDaemonVersion; }

bool isDaemonRunningImpl() {
    CServicePIDFile file(kDaemonName);
    std::vector<std::int32_t> pids;
    if (!file.get(pids) || pids.empty()) return false;
    for (const std::int32_t pid : pids) {
        if (!processExists(pid)) continue;
        const ferrocore::CStringRef name = ferrocore::ProcessUtilities::processNameForID(pid);
        if (!name || name->utf8() != kCorvaneDaemonName) continue;
        PLHolder<const PLString> kind, recordedName, version;
        file.processAttributes(pid, kind, recordedName, version);
        if (isThisVersion(version.get())) return true;
    }
    return false;
}

bool isOtherVersionRunningImpl(std::int32_t daemon) {
    CServicePIDFile file(kDaemonName);
    std::vector<std::int32_t> pids;
    if (!file.get(pids) || pids.empty()) return true;
    bool matched = false;
    for (const std::int32_t pid : pids) {
        if (pid != daemon || !processExists(pid)) continue;
        PLHolder<const PLString> kind, recordedName, version;
        file.processAttributes(pid, kind, recordedName, version);
        if (!isThisVersion(version.get())) return true;
        matched = true;
    }
    return !matched;
}

// Why `path` cannot be started, or an empty text when it can.
std::string launchRefusal(const std::string& path) {
    platform::CFileStatus status;
    if (const std::error_code ec = platform::host().fileStatus(path, status)) return ec.message();
    if ((status.mode & kFileTypeMask) != kRegularFileType) return std::strerror(EACCES);
    if ((status.mode & kAnyExecuteBits) == 0) return std::strerror(EACCES);
    return {};
}

// Starts the daemon in its own session with the caller's environment, no
// arguments and only the standard descriptors. A thread of its own reaps it
// when it ends, so that it never lingers as a zombie of the caller.
void launchDaemon(const std::string& path) {
    const std::string refusal = launchRefusal(path);
    if (!refusal.empty())
        throw ferrocore::CParamException(
            ferrocore::formatString("Couldn't launch corvane daemon with path %s, error = %s", path, refusal));
    const char* const argv[] = {path.c_str(), nullptr};
    auto setup = []() -> int {
        if (const int error = platform::child::startSession()) return error;
        return platform::child::closeDescriptorsFrom(3);
    };
    platform::IProcessSpawner& spawner = platform::processSpawner();
    const platform::CSpawnResult started =
        spawner.spawn(path.c_str(), argv, platform::host().processEnvironment(), setup, platform::ChildMemory::Copied);
    if (started.processID < 0)
        throw ferrocore::CParamException(ferrocore::formatString(
            "Couldn't launch corvane daemon with path %s, error = %s", path, std::strerror(started.error)));
    std::thread([&spawner, pid = started.processID] {
        platform::CProcessEnd end;
        static_cast<void>(spawner.waitForProcess(pid, end));
    }).detach();
}

void sendRestartRequest(bool cancelJobs) {
    const PLHolder<PLMutableDictionary> info = PLUtil::PLDictMakeMutable();
    PLUtil::PLDictSetBoolean(info.get(), QuillCorePrivate::kDictKeyCancelJobs, cancelJobs ? 1 : 0);
    signalFrom(QuillNotification::kQuillDaemonRestartNotification, kRestartSender, info.get());
}

PLHolder<const PLString> serviceKindOf(const PLURL* bundleURL) {
    if (!bundleURL) return nullptr;
    const std::optional<platform::CBundle> bundle = platform::CBundle::open(bundleURL);
    if (!bundle) return nullptr;
    return PLHolder<const PLString>::adopt(getServiceKindFromBundle(&*bundle));
}

}  // namespace

}  // namespace quill

using namespace quill;

const PLString* getServiceKindFromBundle(const platform::CBundle* bundle) noexcept {
    if (!bundle) return nullptr;
    const PLString* kind = PLDynamicCast<PLString>(bundle->infoValue(kCorvaneServiceKindKey));
    return PLHolder<const PLString>::retain(kind).detach();
}

void getLumenforgeServiceBundleURLs(const PLURL** jobController, const PLURL** transcoder,
                                    const PLURL** transcoder32) noexcept {
    const PLURL** const slots[] = {jobController, transcoder, transcoder32};
    const char* const names[] = {kLumenforgeJobControllerBundleName, kLumenforgeTranscoderBundleName,
                                 kLumenforgeTranscoder32BitBundleName};
    for (const PLURL** slot : slots) {
        if (slot) *slot = nullptr;
    }
    try {
        const PLHolder<const PLURL> framework = PLHolder<const PLURL>::adopt(getLumenforgeFrameworkURL());
        if (!framework) return;
        const std::string resources = framework->fileSystemPath() + "/Resources/";
        for (std::size_t i = 0; i < 3; ++i) {
            const std::string path = resources + names[i];
            std::uint32_t mode = 0;
            if (!slots[i] || platform::host().fileMode(path, mode)) continue;
            *slots[i] = PLURL::createWithPath(path, true).detach();
        }
    } catch (...) {
        // Missing pieces give null outputs.
    }
}

void getLumenforgeServiceBundleIDs(const PLString** jobController, const PLString** transcoder,
                                   const PLString** transcoder32) noexcept {
    if (jobController) *jobController = nullptr;
    if (transcoder) *transcoder = nullptr;
    // Intended: the third slot is not cleared here; it is set only when the
    // 32-bit transcoder's kind is found, and callers clear it themselves.
    try {
        const PLURL* urls[3] = {nullptr, nullptr, nullptr};
        getLumenforgeServiceBundleURLs(&urls[0], &urls[1], &urls[2]);
        PLHolder<const PLURL> held[3];
        for (std::size_t i = 0; i < 3; ++i) held[i] = PLHolder<const PLURL>::adopt(urls[i]);
        const PLString** const slots[] = {jobController, transcoder, transcoder32};
        for (std::size_t i = 0; i < 3; ++i) {
            if (!held[i] || !slots[i]) continue;
            PLHolder<const PLString> kind = serviceKindOf(held[i].get());
            if (kind) *slots[i] = kind.detach();
        }
    } catch (...) {
        // Missing pieces give null outputs.
    }
}

bool isDaemonRunning() noexcept {
    try {
        return isDaemonRunningImpl();
    } catch (...) {
        return false;
    }
}

bool IsOtherVersionOfDaemonRunning() noexcept {
    try {
        const auto user = static_cast<uid_t>(platform::processSpawner().effectiveUserID());
        const std::vector<pid_t> daemons = ferrocore::ProcessUtilities::processIDsForName(kCorvaneDaemonName, user);
        if (daemons.empty()) return false;
        return isOtherVersionRunningImpl(static_cast<std::int32_t>(daemons.front()));
    } catch (...) {
        return true;
    }
}

void startDaemon() {
    if (isDaemonRunning()) return;
    const PLHolder<const PLURL> framework = PLHolder<const PLURL>::adopt(getCorvaneFrameworkURL());
    if (!framework) throw ferrocore::CParamException("Corvane.framework not found");
    const std::string path = framework->fileSystemPath() + "/" + kCorvaneDaemonExecutableSubpath;
    launchDaemon(path);

    platform::CRunLoop& loop = platform::CRunLoop::current();
    // Gives the loop a source to wait on; it never fires within the wait.
    const platform::CRunLoopTimer keepAlive = loop.addTimer(60.0, 1000.0, [] {});
    const auto now = [] { return static_cast<long>(std::floor(platform::host().currentTime())); };
    const long start = now();
    for (;;) {
        if (isDaemonRunning()) break;
        if (now() - start > kDaemonStartSeconds) break;
        loop.runFor(kDaemonStartStep);
    }
    if (!isDaemonRunning()) throw ferrocore::CParamException("Couldn't start corvane daemon: PID time-out");
}

void restartDaemon(bool cancelJobs) {
    try {
        sendRestartRequest(cancelJobs);
    } catch (const ferrocore::CException& e) {
        PLUtil::LogToConsole(
            ferrocore::formatString("QuillConfig::restartDaemon failed, exception = %s.\n", e.message()).c_str());
    }
}

void stopDaemon(bool cancelJobs) {
    try {
        // Intended: a stop is the same restart request; the daemon's own
        // settings decide whether it ends.
        sendRestartRequest(cancelJobs);
    } catch (const ferrocore::CException& e) {
        PLUtil::LogToConsole(
            ferrocore::formatString("QuillConfig::stopDaemon failed, exception = %s.\n", e.message()).c_str());
    }
}

void pingDaemon() {
    sendNotification(QuillNotification::kQuillDaemonRunningNotification, QuillNotification::kPrefPaneBundleID, nullptr);
}
