#include <string>
#include <string_view>

#include <ferrocore/CException.h>
#include <ferrocore/CUUIDString.h>
#include <ferrocore/Format.h>
#include <quillcore/control/QuillCorePrivate.h>
#include <quillcore/platform/FileDescriptor.h>
#include <quillcore/platform/Host.h>
#include <quillcore/plist/CQuillConfigFile.h>
#include <quillcore/plist/CServiceCacheFile.h>
#include <quillcore/plist/CServiceConfigFile.h>
#include <quillcore/servicemanager/CServiceUtil.h>

namespace quill {

namespace {

PL_CONSTANT_STRING(kHostListKey, "HostList");
PL_CONSTANT_STRING(kHostNameKey, "HostName");

inline constexpr std::string_view kServiceManagerHintPrefix = "runwardd.";
inline constexpr std::string_view kFileURLPrefix = "file://";
inline constexpr std::uint32_t kStdoutFileMode = 0666;

bool isEmpty(PLStringRef text) noexcept { return !text || text->empty(); }

// The executable path: "Path", or the file path of "file://..." URL text.
ferrocore::CStringRef executablePath(const CServiceCacheEntry& service) {
    const PLStringRef path = service.path();
    if (!path) throw ferrocore::CNullPointerException("Error: path is null!");
    if (path->utf8().starts_with(kFileURLPrefix)) {
        if (const PLHolder<const PLURL> url = PLURL::create(path->utf8()))
            return ferrocore::CString::create(url->fileSystemPath());
    }
    return ferrocore::CString::create(path->utf8());
}

const char* advertisingText(std::int32_t advertising) noexcept {
    switch (advertising) {
        case 1: return "dn";
        case 2: return "mc";
        default: return "rv";
    }
}

// The host name that "UserPrefs" -> "HostList" gives the instance, or null.
PLStringRef instanceHostName(const CServiceCacheEntry& service, long instance) {
    const PLDictionary* prefs = service.userPrefs();
    const PLArray* hosts = prefs ? PLDynamicCast<PLArray>(prefs->get(kHostListKey)) : nullptr;
    if (!hosts || instance < 0 || static_cast<std::size_t>(instance) >= hosts->count()) return nullptr;
    const PLDictionary* host = PLDynamicCast<PLDictionary>(hosts->at(static_cast<std::size_t>(instance)));
    return host ? PLDynamicCast<PLString>(host->get(kHostNameKey)) : nullptr;
}

}  // namespace

int CServiceUtil::launchFlagForService(const CServiceCacheEntry& service) noexcept {
    const PLStringRef hint = service.launchHint();
    if (hint && hint->utf8().starts_with(kServiceManagerHintPrefix)) return kServiceLaunchedByServiceManager;
    return kServiceLaunchedByDaemon;
}

std::vector<ferrocore::CStringRef> CServiceUtil::buildServiceArgs(const CServiceCacheEntry& service,
                                                                  const CServiceConfigEntry& instanceConfig,
                                                                  long instance) {
    const ferrocore::CStringRef path = executablePath(service);
    const CQuillConfigFile config;

    std::vector<ferrocore::CStringRef> args;
    const auto add = [&args](std::string_view text) { args.push_back(ferrocore::CString::create(text)); };
    args.push_back(path);
    if (service.detachDaemon()) add("-d");
    if (service.localAds()) add("-l");
    if (service.logging() || config.logToFile) add("-v");
    if (service.advertising() != 0) {
        add("-adv");
        add(advertisingText(service.advertising()));
    }
    add("-idx");
    add(std::to_string(instance));

    std::string name = config.serverName ? config.serverName->str() : std::string();
    if (instance > 0) name = ferrocore::formatString("%@ %lu", name, static_cast<unsigned long>(instance) + 1);
    if (const PLStringRef host = instanceHostName(service, instance))
        name = ferrocore::formatString("%@ (%@)", name, host->utf8());
    if (!name.empty()) {
        add("-name");
        add(name);
    }

    PLHolder<const PLString> identifier = PLHolder<const PLString>::retain(instanceConfig.name());
    PLHolder<const PLString> captureKey = PLHolder<const PLString>::retain(instanceConfig.captureKey());
    if (isEmpty(captureKey.get())) {
        captureKey = PLHolder<const PLString>::retain(service.captureKey());
        if (isEmpty(identifier.get())) {
            identifier = captureKey;
            if (instance > 0 && !isEmpty(identifier.get())) {
                captureKey = PLString::create(
                    ferrocore::formatString("%@-%lu", captureKey->utf8(), static_cast<unsigned long>(instance) + 1));
                identifier = captureKey;
            }
        }
    }
    if (isEmpty(identifier.get())) identifier = PLString::create(ferrocore::CUUIDString().str());
    add("-id");
    add(identifier->utf8());

    const bool localOnlyService = !PLEqual(service.name(), QuillCorePrivate::kClusterServiceKind) && service.localAds();
    if (!localOnlyService || !isEmpty(service.captureKey())) {
        const bool passwordWanted = config.sharingEnabled && config.requirePassword;
        if (passwordWanted && !isEmpty(config.serverPassword.get())) {
            add("-ak");
            add(config.serverPassword->utf8());
        }
        if (!isEmpty(captureKey.get())) {
            add("-ck");
            add(captureKey->utf8());
        }
    }
    if (service.perUserService()) add("-pu");
    return args;
}

void CServiceUtil::setupStdStreams() {
    platform::IHost& host = platform::host();
    {
        platform::CFileDescriptor devNull;
        if (!host.openFileForReading("/dev/null", devNull)) {
            // Opened as descriptor 0 itself when standard input was closed.
            if (devNull.get() == 0)
                static_cast<void>(devNull.release());
            else
                host.duplicateDescriptor(devNull.get(), 0);
        }
    }
    const CQuillConfigFile config;
    if (isEmpty(config.stdoutPath.get())) return;
    platform::CFileDescriptor out;
    {
        const platform::CScopedFileCreationMask mask(0);
        if (host.openFileForAppending(config.stdoutPath->str(), false, kStdoutFileMode, out)) return;
    }
    if (out.get() != 1) host.duplicateDescriptor(out.get(), 1);
    if (out.get() != 2) host.duplicateDescriptor(out.get(), 2);
    if (out.get() <= 2) static_cast<void>(out.release());
}

}  // namespace quill
